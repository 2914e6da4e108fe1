#include "protocol/IcomCommand.h"

#include "protocol/Frame.h"
#include "serial/MyQSerialPort.h"

#include <QDebug>

IcomCommand::IcomCommand(QObject *parent, int commandType) : QObject(parent), m_commandType(commandType) { }

bool IcomCommand::expectsResponse() const
{
    return m_commandType != Action;
}

int IcomCommand::commandType() const
{
    return m_commandType;
}

void IcomCommand::stampNow()
{
    m_timestamp = QDateTime::currentDateTimeUtc();
}

bool IcomCommand::execute(MyQSerialPort *port)
{
    const QByteArray frame = framedText();
    if (!port) {
        qInfo() << "TRYING TO SEND A COMMAND ON A NULL SERIAL PORT";
        return false;
    }
    if (!port->isOpen()) {
        qInfo() << "TRYING TO SEND A COMMAND ON A CLOSED SERIAL PORT";
        return false;
    }
    return port->write(frame) != -1;
}

QByteArray IcomCommand::framedText()
{
    return Frame::wrapped(commandText().toUtf8());
}
