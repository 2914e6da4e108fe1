#pragma once

#include "tools/radiosim/SimulatedRadio.h"

#include <QtTest>

/// A simulated radio that is plugged in from the start.
class PluggedRadio : public SimulatedRadio
{
public:
    explicit PluggedRadio(const RadioSettings &settings = RadioSettings()) : SimulatedRadio(settings)
    {
        connect(this, &SimulatedRadio::displayChanged, [this](const QString &text) { shown.append(text); });
        if (!plugIn())
            qFatal("%s", qPrintable(errorString()));
    }
    /// Speed in bit/s and the serial number that it tells.
    explicit PluggedRadio(int baud, const QString &esn = RadioSettings().esn)
        : PluggedRadio(RadioSettings{baud, esn, {}, {}})
    {
    }

    /// Sends bytes as soon as the other side has the device open.
    bool deliver(const QByteArray &bytes)
    {
        return QTest::qWaitFor([&] { return send(bytes); });
    }
    /// Whether every command of the identification has reached it, the greeting's first words included.
    bool isGreeted() const { return received().size() >= 8; }
    /// Whether the greeting has been cleared, too: from now on no command waits that would claim a frame.
    bool isIdle() const { return isGreeted() && displayText().isEmpty(); }

    QStringList shown; ///< every text that the display has shown
};
