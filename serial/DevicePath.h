#pragma once

#include <QFileInfo>
#include <QString>

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
