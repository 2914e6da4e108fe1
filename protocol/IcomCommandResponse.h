#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QMetaType>
#include <QObject>
#include <QSharedPointer>

/// One frame received from a radio, parsed. The parent is the adapter that received it, or none.
class IcomCommandResponse : public QObject
{
    Q_OBJECT

public:
    /// Type codes; the answers' codes are the kind codes of their queries.
    enum Type {
        Base = -1,
        CloningComment = 1,
        DspFirmware = 2,
        Esn = 3,
        FirmwareVersion = 4,
        FrontFirmware = 5,
        DpmrCall = 6,
        AnalogCall = 7,
        DpmrStatus = 8,
        DpmrGpsLocation = 9,
        BatteryLimitation = 10,
        TxPowerLimitation = 11,
        Unsollicited = 99,
    };

    IcomCommandResponse(QObject *parent, const QByteArray &data);

    virtual int responseType() const { return Base; }
    /// What the gateway itself does about the frame, after the outputs have had it.
    virtual void process() { }

    /// The frame as received, without STX and ETX.
    QByteArray data() const { return m_data; }
    /// UTC time of reception; invalid until the adapter takes the response in.
    QDateTime timestamp() const { return m_timestamp; }
    void stampNow();

private:
    const QByteArray m_data;
    QDateTime m_timestamp;
};

Q_DECLARE_METATYPE(QSharedPointer<IcomCommandResponse>)
