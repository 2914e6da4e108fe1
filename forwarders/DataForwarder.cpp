#include "forwarders/DataForwarder.h"

#include "config/ConfigDatabase.h"

static constexpr int statusRetryDelay = 60000; // ms; a locked file holds up everything for 5 s each time

DataForwarder::DataForwarder(QObject *parent, int id) : QObject(parent), m_id(id)
{
    m_statusRetry.setSingleShot(true);
    m_statusRetry.setInterval(statusRetryDelay);
}

DataForwarderConfig DataForwarder::configuration() const
{
    return ConfigDatabase::getInstance()->getForwarderConfiguration(m_id);
}

void DataForwarder::setStatus(int status) const
{
    ConfigDatabase::getInstance()->updateForwarderStatus(m_id, DataForwarderConfig::ForwarderStatus(status));
}

void DataForwarder::keepStatus(int status)
{
    setStatus(status);
    m_statusRetry.disconnect();
    m_statusRetry.stop();
    if (!ConfigDatabase::getInstance()->lastStatusFailed())
        return;
    connect(&m_statusRetry, &QTimer::timeout, this, [this, status] { keepStatus(status); });
    m_statusRetry.start();
}

QSharedPointer<RadioAdapterConfig> DataForwarder::senderConfig() const
{
    const auto *link = qobject_cast<RadioLink *>(sender());
    return link ? link->config() : QSharedPointer<RadioAdapterConfig>::create();
}
