#pragma once

#include <QByteArray>
#include <QElapsedTimer>

/// The time of day as a server tells it, for a machine that starts in the past.
class ServerClock
{
public:
    /// Takes a Date header (RFC 9110, 6.6.1); what is no date is passed over. Logs once when it differs from
    /// this machine's clock by more than five minutes.
    void note(const QByteArray &dateHeader);
    /// Seconds since 1970 UTC: of this machine, unless a server's clock differs by more than five minutes.
    qint64 secondsSinceEpoch() const;
    /// Whether a time is more than five minutes off.
    bool isFarOff(qint64 secondsSinceEpoch) const;

    /// A Retry-After header (RFC 9110, 10.2.3), a number of seconds or a date, in ms from now; 0 when there
    /// is none. A server's word holds for at most an hour.
    qint64 retryAfter(const QByteArray &header) const;

private:
    qint64 m_serverTime = 0; // s; 0 while none is known
    QElapsedTimer m_since; // since the server said so
    bool m_differs = false;
};
