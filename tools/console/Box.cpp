#include "tools/console/Box.h"

#include <QFileInfo>

namespace {

const int lookMs = 1000;
/// A change of the file often comes in several steps.
const int settleMs = 150;
/// Rows may change every second while radios are identified, and each check is a process.
const int changeMs = 3000;
/// What changes without the file: devices, servers, what waits in an outbox.
const int checkMs = 30 * 1000;

} // namespace

Box::Box(const QString &configFile, QThreadPool &pool, QObject *parent)
    : QObject(parent), m_pool(pool), m_file(configFile), m_check(configFile)
{
    connect(&m_stream, &StreamClient::received, this, &Box::receive);
    connect(&m_stream, &StreamClient::joined, this, &Box::readSoon);
    connect(&m_stream, &StreamClient::lost, this, &Box::readSoon);
    m_lookTimer.setInterval(lookMs);
    connect(&m_lookTimer, &QTimer::timeout, this, &Box::look);
    m_readTimer.setSingleShot(true);
    m_readTimer.setInterval(settleMs);
    connect(&m_readTimer, &QTimer::timeout, this, &Box::readFile);
    m_checkTimer.setInterval(checkMs);
    connect(&m_checkTimer, &QTimer::timeout, &m_check, &Check::start);
    m_changeTimer.setSingleShot(true);
    m_changeTimer.setInterval(changeMs);
    connect(&m_changeTimer, &QTimer::timeout, &m_check, &Check::start);
    connect(&m_check, &Check::finished, this, &Box::readFile);
}

void Box::start()
{
    m_lookTimer.start();
    readFile();
}

void Box::setWatched(bool watched)
{
    m_watched = watched;
    if (!watched) {
        m_checkTimer.stop();
        return;
    }
    m_lookTimer.start();
    m_checkTimer.start();
    m_check.start();
    readSoon();
}

void Box::readSoon()
{
    m_readTimer.start();
    m_lookTimer.start();
}

void Box::look()
{
    const bool unread = m_watched && !m_snapshot.error.isEmpty();
    if (unread || m_file.stamp() != m_stamp)
        readFile();
    else if (!m_watched && m_stream.isJoined())
        m_lookTimer.stop();
}

void Box::readFile()
{
    if (m_reading) {
        m_readTimer.start();
        return;
    }
    m_reading = true;
    const QString stamp = m_file.stamp();
    m_pool.start([this, stamp] {
        const FileState::Snapshot snapshot = m_file.read();
        QMetaObject::invokeMethod(this, [this, stamp, snapshot] {
            m_reading = false;
            const bool changed = stamp != m_stamp || m_snapshot.error != snapshot.error;
            m_stamp = stamp;
            take(snapshot);
            if (changed && m_watched)
                m_changeTimer.start();
        });
    });
}

void Box::take(const FileState::Snapshot &file)
{
    m_snapshot = file;
    if (file.error.isEmpty())
        m_stream.setTarget(file.stream.value_or(StreamTarget()));
    emit stateChanged(state(file));
}

void Box::receive(const QByteArray &line, const QJsonObject &record)
{
    const QString kind = record.value(QStringLiteral("record")).toString();
    if (kind == QLatin1String("gateway")) {
        m_gateway = record;
    } else if (kind == QLatin1String("radio")) {
        readSoon();
    } else {
        m_history.add(line, record, QDateTime::currentDateTimeUtc());
        emit recorded();
    }
}

QJsonObject Box::state(const FileState::Snapshot &file) const
{
    const QJsonObject stream{
        {QStringLiteral("target"), file.stream ? file.stream->text() : QString()},
        {QStringLiteral("joined"), m_stream.isJoined()},
    };
    return {
        {QStringLiteral("configfile"), m_file.configFile()},
        {QStringLiteral("gateway"), m_gateway},
        {QStringLiteral("stream"), stream},
        {QStringLiteral("radios"), file.radios},
        {QStringLiteral("outputs"), file.outputs},
        {QStringLiteral("pending"), file.pending},
        {QStringLiteral("findings"), allFindings(file)},
        {QStringLiteral("now"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
        {QStringLiteral("checked"), m_check.findings().checked.toString(Qt::ISODateWithMs)},
        {QStringLiteral("activity"), m_history.activity(QDateTime::currentDateTimeUtc())},
        {QStringLiteral("sequence"), m_history.last()},
    };
}

/// The console's own findings come first: without them the others say little.
QJsonArray Box::allFindings(const FileState::Snapshot &file) const
{
    QJsonArray result;
    if (!file.error.isEmpty())
        result.append(errorFinding(QStringLiteral("configuration"), file.error,
            QFileInfo::exists(m_file.configFile())
                ? QStringLiteral("journalctl -u quillon tells why")
                : QStringLiteral("start the daemon once, or name the right file with --configfile")));
    else if (!file.stream)
        result.append(errorFinding(QStringLiteral("console"),
            QStringLiteral("no STREAM output is switched on, so nothing can be shown of what is heard"),
            QStringLiteral("quillonctl forwarder add stream, then quillonctl restart")));
    else if (!m_stream.isJoined())
        result.append(errorFinding(QStringLiteral("daemon"),
            QStringLiteral("it does not run, or does not offer its stream at %1").arg(file.stream->text()),
            QStringLiteral("systemctl restart quillon, then journalctl -u quillon")));
    for (const auto &finding : m_check.findings().rows)
        result.append(finding);
    return result;
}
