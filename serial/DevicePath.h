#pragma once

#include <QFileInfo>
#include <QString>
#include <QStringList>

#include <algorithm>

/// The device file that a port name leads to, through all links; empty when there is none.
/// A port name is a name under /dev, such as ttyUSB0 or serial/by-id/usb-x, or an absolute path.
/// A name relative to the working directory ("./x") leads nowhere.
inline QString devicePath(const QString &portName)
{
    if (portName.startsWith(QLatin1Char('.')))
        return {};
    const bool isAbsolute = portName.startsWith(QLatin1Char('/'));
    return QFileInfo(isAbsolute ? portName : QStringLiteral("/dev/") + portName).canonicalFilePath();
}

/// The entry of the blacklist that keeps the daemon off a port; null when there is none.
/// A port that the system lists is blocked by its very name. One that a STATIC row names (`method`) is also
/// blocked when an entry leads to the same device: serial0 is, where it is a link to a blocked ttyAMA0.
inline QString blockingEntry(const QString &portName, const QString &method, const QStringList &blacklist)
{
    if (blacklist.contains(portName))
        return portName;
    const QString device = method == QLatin1String("STATIC") ? devicePath(portName) : QString();
    const auto found = std::find_if(blacklist.cbegin(), blacklist.cend(),
        [&](const QString &entry) { return !device.isEmpty() && devicePath(entry) == device; });
    return found == blacklist.cend() ? QString() : *found;
}
