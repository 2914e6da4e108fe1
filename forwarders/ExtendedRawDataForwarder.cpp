#include "forwarders/ExtendedRawDataForwarder.h"

void ExtendedRawDataForwarder::forward(QSharedPointer<IcomCommandResponse> resp)
{
    if (isConnected())
        send(resp->data());
}

void ExtendedRawDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    if (isConnected())
        send(command->commandText().toUtf8());
}

void ExtendedRawDataForwarder::send(const QByteArray &line)
{
    write(senderConfig()->name.toUtf8() + '|' + line);
    // Before the wait, on purpose: a wait that breaks the connection leaves its own status.
    setStatus(DataForwarderConfig::Working);
    waitUntilWritten();
}
