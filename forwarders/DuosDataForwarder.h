#pragma once

#include "forwarders/DataForwarder.h"

/// The "DUOS" output: accepts the traffic like every other output and deliberately sends nothing. It counts
/// as working from the start.
class DuosDataForwarder : public DataForwarder
{
    Q_OBJECT

public:
    DuosDataForwarder(QObject *parent, int id);

public slots:
    void forward(QSharedPointer<IcomCommandResponse> resp) override;
    void forwardSent(QSharedPointer<IcomCommand> command) override;
};
