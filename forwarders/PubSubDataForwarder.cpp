#include "forwarders/PubSubDataForwarder.h"

#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "forwarders/LongWait.h"
#include "forwarders/OutboxFiles.h"

namespace {

constexpr qint64 usualLimit = 256; // MiB
constexpr qint64 greatestLimit = 1024LL * 1024; // MiB
constexpr qint64 ownerLifetime = 1000; // ms

} // namespace

PubSubDataForwarder::PubSubDataForwarder(QObject *parent, int id, const PublisherTimes &times)
    : DataForwarder(parent, id), m_queue(outboxPath(ConfigDatabase::getInstance()->path(), id)),
      m_publisher(
          &m_queue, [this] { return configuration(); }, times)
{
    setStatus(m_status);
    readLimit();
    m_writeTimer.setSingleShot(true);
    m_writeTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_writeTimer, &QTimer::timeout, this, &PubSubDataForwarder::write);
    connect(&m_publisher, &PubSubPublisher::tokenObtained, this, &PubSubDataForwarder::readLimit);
    connect(&m_publisher, &PubSubPublisher::finished, this, [this](bool accepted) {
        m_accepted = accepted;
        showStatus(
            accepted && m_queue.diskWorks() ? DataForwarderConfig::Working : DataForwarderConfig::Failed);
        scheduleWrite();
    });
    m_sendTimer.setSingleShot(true);
    connect(&m_sendTimer, &QTimer::timeout, &m_publisher, &PubSubPublisher::publish);
    connect(LongWait::getInstance(), &LongWait::begins, this, [this] { m_queue.writeAll(); });
    m_sendTimer.start(0);
}

void PubSubDataForwarder::forward(QSharedPointer<IcomCommandResponse> resp)
{
    add(CloudMessage::received(senderConfig(), *resp));
}

void PubSubDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    add(CloudMessage::sent(senderConfig(), *command));
}

void PubSubDataForwarder::add(const CloudMessage &message)
{
    refreshOwner();
    m_queue.add(message.toJson(m_owner));
    m_sendTimer.start(0); // after the other outputs have the frame, too
    scheduleWrite();
}

/// Who owns the gateway changes so seldom that a burst of frames need not ask each time.
void PubSubDataForwarder::refreshOwner()
{
    if (m_ownerAge.isValid() && !m_ownerAge.hasExpired(ownerLifetime))
        return;
    m_ownerAge.start();
    const CloudOwner owner = CloudOwner::read();
    if (!ConfigDatabase::getInstance()->lastReadFailed())
        m_owner = owner;
}

void PubSubDataForwarder::readLimit()
{
    const QString value = ConfigDatabase::getInstance()->getSystemConfigurationValue(OUTBOX_LIMIT_KEY);
    const qint64 limit = value.toLongLong(); // 0 when it is no number
    m_queue.setLimit((limit > 0 && limit <= greatestLimit ? limit : usualLimit) * 1024 * 1024);
}

void PubSubDataForwarder::write()
{
    m_queue.write();
    if (!m_queue.diskWorks())
        showStatus(DataForwarderConfig::Failed);
    else if (m_accepted)
        showStatus(DataForwarderConfig::Working);
    m_publisher.publish(); // messages that had no number before have one now
    scheduleWrite();
}

void PubSubDataForwarder::scheduleWrite()
{
    const int next = m_queue.nextWrite();
    if (next >= 0)
        m_writeTimer.start(next);
    else
        m_writeTimer.stop();
}

/// Writes the status of the row when it changes.
void PubSubDataForwarder::showStatus(DataForwarderConfig::ForwarderStatus status)
{
    if (status == m_status)
        return;
    m_status = status;
    setStatus(status);
}
