#pragma once

#include "forwarders/TcpDataForwarder.h"

/// The "ERAW" output: every frame and command over TCP as the radio's name, "|" and the line, in UTF-8 and
/// without any delimiter between two of them.
class ExtendedRawDataForwarder : public TcpDataForwarder
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
