#include "forwarders/DataForwarder.h"

#include "config/ConfigDatabase.h"

DataForwarder::DataForwarder(QObject *parent, int id) : QObject(parent), m_id(id) { }

DataForwarderConfig DataForwarder::configuration() const
{
    return ConfigDatabase::getInstance()->getForwarderConfiguration(m_id);
}

void DataForwarder::setStatus(int status) const
{
    ConfigDatabase::getInstance()->updateForwarderStatus(m_id, DataForwarderConfig::ForwarderStatus(status));
}

QSharedPointer<RadioAdapterConfig> DataForwarder::senderConfig() const
{
    const auto *link = qobject_cast<RadioLink *>(sender());
    return link ? link->config() : QSharedPointer<RadioAdapterConfig>::create();
}
