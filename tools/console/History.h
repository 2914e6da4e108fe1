#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QVector>

#include <array>
#include <deque>

/// What was heard and sent lately: the last 1,000 records as they came, or fewer that take 1 MiB, each with a
/// number that counts up from 1, and for each port how many frames came in each of the last 60 minutes.
class History
{
public:
    static constexpr int capacity = 1000;
    static constexpr qint64 maximumBytes = 1024LL * 1024;
    static constexpr int minutes = 60;

    /// Takes a record of the kind "frame", "command" or "lost": as the line of the stream, without its end,
    /// and parsed. `now` is the time of this machine.
    void add(const QByteArray &line, const QJsonObject &record, const QDateTime &now);

    /// The number of the newest record, 0 before the first.
    qint64 last() const { return m_last; }
    /// The number of the oldest record that is still there.
    qint64 first() const { return m_last - qint64(m_lines.size()) + 1; }
    /// The line of a record that is still there.
    QByteArray line(qint64 number) const { return m_lines.at(size_t(number - first())); }

    /// A row for each port that was heard: port, lastHeard (the record), perMinute (60 numbers, the oldest
    /// first; the last one is the minute of `now`, not over yet).
    QJsonArray activity(const QDateTime &now) const;

private:
    struct Activity
    {
        QJsonObject lastHeard;
        std::array<int, minutes> counts = {}; ///< the oldest minute first
        qint64 minute = 0; ///< the number of the last one, since 1970
    };

    static void advance(Activity &activity, qint64 minute);

    std::deque<QByteArray> m_lines;
    qint64 m_bytes = 0; ///< of m_lines
    QHash<QString, Activity> m_activities;
    qint64 m_last = 0;
};
