#include "forwarders/RawDataForwarder.h"

#include "protocol/Frame.h"

void RawDataForwarder::forward(QSharedPointer<IcomCommandResponse> resp)
{
    if (isConnected())
        send(resp->data());
}

void RawDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    if (isConnected())
        send(command->commandText().toUtf8());
}

void RawDataForwarder::send(const QByteArray &line)
{
    write(Frame::wrapped(line));
    waitUntilWritten();
    setStatus(DataForwarderConfig::Working);
}
