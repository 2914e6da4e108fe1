#include "tools/console/History.h"

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
    ++activity.counts.at(size_t(activity.minute % minutes));
}

/// Minutes in which nothing came count 0. A clock that is set back goes on in the newest minute.
void History::advance(Activity &activity, qint64 minute)
{
    if (minute - activity.minute >= minutes)
        activity.counts.fill(0);
    else
        for (qint64 next = activity.minute + 1; next <= minute; ++next)
            activity.counts.at(size_t(next % minutes)) = 0;
    activity.minute = qMax(activity.minute, minute);
}

QJsonArray History::activity(const QDateTime &now) const
{
    QJsonArray result;
    for (auto entry = m_activities.cbegin(); entry != m_activities.cend(); ++entry) {
        Activity activity = entry.value();
        advance(activity, minuteOf(now));
        QJsonArray counts;
        for (qint64 minute = activity.minute - minutes + 1; minute <= activity.minute; ++minute)
            counts.append(activity.counts.at(size_t(minute % minutes)));
        result.append(QJsonObject{
            {QStringLiteral("port"), entry.key()},
            {QStringLiteral("lastHeard"), activity.lastHeard},
            {QStringLiteral("perMinute"), counts},
        });
    }
    return result;
}
