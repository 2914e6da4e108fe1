#include "forwarders/DuosDataForwarder.h"

DuosDataForwarder::DuosDataForwarder(QObject *parent, int id) : DataForwarder(parent, id)
{
    setStatus(DataForwarderConfig::Working);
}

void DuosDataForwarder::forward(QSharedPointer<IcomCommandResponse>) { }

void DuosDataForwarder::forwardSent(QSharedPointer<IcomCommand>) { }
