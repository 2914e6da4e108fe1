#pragma once

#include <QObject>
#include <QSharedPointer>
#include <QString>

/// One row of the radio_adapters table: a radio, the port that it hangs on and how to talk to it.
/// Handed around as QSharedPointer<RadioAdapterConfig>; a change reaches the file only through
/// ConfigDatabase.
class RadioAdapterConfig : public QObject
{
    Q_OBJECT

public:
    /// Live state of the adapter, as stored in the status column.
    enum Status {
        Idle = 0, ///< not identified since the daemon started
        Identified = 1, ///< the radio has answered
        Stopped = 2, ///< the adapter has given up
    };

    RadioAdapterConfig() = default;
    /// Copies every field; the QObject part is new and has no parent.
    RadioAdapterConfig(const RadioAdapterConfig &other);
    RadioAdapterConfig &operator=(const RadioAdapterConfig &) = delete;

    int ids = -1; ///< row id, -1 while not stored
    QString method =
        QStringLiteral(""); ///< how the port is found: "UART" by enumeration, "STATIC" by its row
    QString port = QStringLiteral(""); ///< serial port name, such as ttyUSB0
    QString name = QStringLiteral(""); ///< display name
    bool autobaud = false; ///< work out the speed by trying the candidate rates
    bool tx_enabled = false; ///< commands may be sent to the radio
    int baudrate = 0; ///< line speed in bit/s, used when autobaud is off
    bool enabled = false; ///< the port may be driven
    bool discovered = false; ///< the row was made by the port scan
    QString esn = QStringLiteral(""); ///< electronic serial number, as the radio tells it
    Status status = Idle;
};
