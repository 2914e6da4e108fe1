#pragma once

#include "forwarders/TcpDataForwarder.h"

/// The "RAW" output: every frame and command over TCP as 0x02, the line, 0x03.
class RawDataForwarder : public TcpDataForwarder
{
    Q_OBJECT

public:
    using TcpDataForwarder::TcpDataForwarder;

public slots:
    void forward(QSharedPointer<IcomCommandResponse> resp) override;
    void forwardSent(QSharedPointer<IcomCommand> command) override;

private:
    void send(const QByteArray &line);
};
