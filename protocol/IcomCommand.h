#pragma once

#include "protocol/IcomCommandResponse.h"

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QSharedPointer>
#include <QString>

class MyQSerialPort;

/// One line to be sent to one radio. A line travels in a frame: the byte 0x02, its UTF-8 text, the byte 0x03.
class IcomCommand : public QObject
{
    Q_OBJECT

public:
    /// Kind codes; an answer carries the code of its query as its responseType().
    enum Kind {
        RetrieveCloningComment = 1,
        RetrieveDspFirmware = 2,
        RetrieveEsn = 3,
        RetrieveFirmwareVersion = 4,
        RetrieveFrontFirmware = 5,
        Action = 99, ///< expects no answer
    };

    IcomCommand(QObject *parent, int commandType);

    virtual bool expectsResponse() const;
    virtual int commandType() const;
    /// The line to send, without framing. Not const: an action may change its own text by being asked.
    virtual QString commandText() = 0;

    /// UTC time of the announcement; invalid while the command was not announced.
    QDateTime timestamp() const { return m_timestamp; }
    void stampNow();

public slots:
    /// Writes the framed line with one call and does not wait; false when the port is null, closed or fails.
    virtual bool execute(MyQSerialPort *port);
    /// Whether the frame is this command's answer; a query that recognises it emits commandResponse first.
    virtual bool validResponse(const QByteArray &data) = 0;

public:
    /// The line as it is announced; asking for it does not change what commandText() yields.
    virtual QString announcedText() { return commandText(); }

signals:
    void commandResponse(QSharedPointer<IcomCommandResponse> response);

protected:
    /// 0x02, the command's line in UTF-8, 0x03.
    QByteArray framedText();

private:
    const int m_commandType;
    QDateTime m_timestamp;
};
