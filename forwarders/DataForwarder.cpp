#include "forwarders/DataForwarder.h"

#include "config/ConfigDatabase.h"

static constexpr int statusRetryDelay = 60000; // ms; each try that fails is logged

DataForwarder::DataForwarder(QObject *parent, int id) : QObject(parent), m_id(id)
{
    m_statusRetry.setSingleShot(true);
    m_statusRetry.setInterval(statusRetryDelay);
    connect(&m_statusRetry, &QTimer::timeout, this, [this] { keepStatus(m_keptStatus); });
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
    m_keptStatus = status;
    setStatus(status);
    if (ConfigDatabase::getInstance()->lastStatusFailed())
        m_statusRetry.start();
    else
        m_statusRetry.stop();
}

QSharedPointer<RadioAdapterConfig> DataForwarder::senderConfig() const
{
    const auto *link = qobject_cast<RadioLink *>(sender());
    return link ? link->config() : QSharedPointer<RadioAdapterConfig>::create();
}
