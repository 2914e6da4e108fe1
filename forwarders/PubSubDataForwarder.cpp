#include "forwarders/PubSubDataForwarder.h"

#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "forwarders/LongWait.h"
#include "forwarders/OutboxFiles.h"

namespace {

constexpr qint64 greatestLimit = 1024LL * 1024; // MiB
constexpr qint64 settingsLifetime = 1000; // ms
constexpr qint64 settingsRest = 60000; // ms, after the file could not be read

} // namespace

PubSubDataForwarder::PubSubDataForwarder(QObject *parent, int id, const PublisherTimes &times)
    : DataForwarder(parent, id), m_queue(outboxPath(ConfigDatabase::getInstance()->path(), id)),
      m_publisher(
          &m_queue, [this] { return readRow(); }, times)
{
    setStatus(m_status);
    refreshSettings();
    m_writeTimer.setSingleShot(true);
    m_writeTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_writeTimer, &QTimer::timeout, this, &PubSubDataForwarder::write);
    connect(&m_publisher, &PubSubPublisher::tokenObtained, this, [this] {
        if (!m_isRefused) // otherwise nothing is known before the next one
            showResult(true);
    });
    connect(&m_publisher, &PubSubPublisher::tokenFailed, this, [this] { showResult(false); });
    connect(&m_publisher, &PubSubPublisher::finished, this, [this](bool accepted) {
        m_isRefused = !accepted;
        showResult(accepted);
        scheduleWrite();
    });
    connect(&m_publisher, &PubSubPublisher::outboxFailed, this, &PubSubDataForwarder::scheduleWrite);
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
    refreshSettings();
    m_queue.add(message.toJson(m_owner));
    m_sendTimer.start(0); // after the other outputs have the frame, too
    scheduleWrite();
}

/// They change so seldom that a burst of frames need not ask each time; while the file cannot be read, the
/// old ones hold.
void PubSubDataForwarder::refreshSettings()
{
    if (m_settingsAge.isValid() && !m_settingsAge.hasExpired(m_settingsLifetime))
        return;
    const auto refresh = [](const QString &key, QString *value) {
        const QString read = ConfigDatabase::getInstance()->getSystemConfigurationValue(key);
        const bool wasRead = !ConfigDatabase::getInstance()->lastReadFailed();
        if (wasRead)
            *value = read;
        return wasRead;
    };
    // A file that is locked is waited for once.
    const bool wereRead = refresh(OWNER_EMAIL_KEY, &m_owner.email)
        && refresh(OWNER_DEPT_KEY, &m_owner.department) && refresh(OUTBOX_LIMIT_KEY, &m_limit);
    m_settingsLifetime = wereRead || m_limit.isNull() ? settingsLifetime : settingsRest;
    // A file that is made anew has no such key, and must not cost what an outage has gathered.
    const qint64 limit = m_limit.toLongLong(); // 0 when it is no number
    if (limit > 0 && limit <= greatestLimit)
        m_queue.setLimit(limit * 1024 * 1024);
    m_settingsAge.start();
}

/// The row as it stands. One that was restored from a copy may tell another status.
DataForwarderConfig PubSubDataForwarder::readRow()
{
    DataForwarderConfig row = configuration();
    if (row.ids >= 0 && row.status != m_status)
        keepStatus(m_status);
    return row;
}

/// What came of the last request.
void PubSubDataForwarder::showResult(bool accepted)
{
    m_accepted = accepted;
    showStatus(accepted && m_queue.diskWorks() ? DataForwarderConfig::Working : DataForwarderConfig::Failed);
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
    keepStatus(status);
}
