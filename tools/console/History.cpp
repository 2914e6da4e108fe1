#include "tools/console/History.h"

#include <algorithm>

namespace {

/// More ports than a box has are somebody's mistake; they must not fill the memory.
const int maximumPorts = 256;

qint64 minuteOf(const QDateTime &time)
{
    return time.toSecsSinceEpoch() / 60;
}

} // namespace

void History::add(const QByteArray &line, const QJsonObject &record, const QDateTime &now)
{
    m_lines.push_back(line);
    m_bytes += line.size();
    while (m_lines.size() > size_t(capacity) || m_bytes > maximumBytes) {
        m_bytes -= m_lines.front().size();
        m_lines.pop_front();
    }
    ++m_last;

    const QString port = record.value(QStringLiteral("port")).toString();
    const bool isFrame = record.value(QStringLiteral("record")) == QStringLiteral("frame");
    if (!isFrame || (m_activities.size() >= maximumPorts && !m_activities.contains(port)))
        return;
    Activity &activity = m_activities[port];
    activity.lastHeard = record;
    advance(activity, minuteOf(now));
    ++activity.counts.back();
}

/// Minutes in which nothing came count 0. When the clock was set back, the newest minute is the present one.
void History::advance(Activity &activity, qint64 minute)
{
    const qint64 passed = qBound(qint64(0), minute - activity.minute, qint64(minutes));
    auto &counts = activity.counts;
    std::rotate(counts.begin(), counts.begin() + passed, counts.end());
    std::fill(counts.end() - passed, counts.end(), 0);
    activity.minute = minute;
}

QJsonArray History::activity(const QDateTime &now) const
{
    QJsonArray result;
    for (auto entry = m_activities.cbegin(); entry != m_activities.cend(); ++entry) {
        Activity activity = entry.value();
        advance(activity, minuteOf(now));
        QJsonArray counts;
        for (const int count : activity.counts)
            counts.append(count);
        result.append(QJsonObject{
            {QStringLiteral("port"), entry.key()},
            {QStringLiteral("lastHeard"), activity.lastHeard},
            {QStringLiteral("perMinute"), counts},
        });
    }
    return result;
}
