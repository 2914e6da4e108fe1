#pragma once

#include <QElapsedTimer>
#include <QRandomGenerator>

/// How long to rest after failures: up to 1 s, then up to twice as long each time, to 60 s, at random so that
/// many gateways do not come back at once ("full jitter"). It runs on the monotonic clock.
class Backoff
{
public:
    /// `unit` is the first rest at its longest, in ms.
    explicit Backoff(qint64 unit) : m_unit(unit), m_longest(unit) { m_clock.start(); }

    bool isResting() const { return restLeft() > 0; }
    /// ms until the next try.
    qint64 restLeft() const { return qMax<qint64>(0, m_until - m_clock.elapsed()); }
    /// Whether so many tries failed that the rests grow no longer.
    bool isLongest() const { return m_longest == m_unit * 60; }
    /// Whether the last try failed.
    bool hasFailed() const { return m_failed; }

    void reset()
    {
        m_failed = false;
        m_until = 0;
        m_longest = m_unit;
    }
    /// A try failed; the server wants `retryAfter` ms of rest. What fails while it rests lengthens
    /// it at most to that.
    void fail(qint64 retryAfter = 0)
    {
        if (isResting()) {
            if (retryAfter > restLeft())
                rest(retryAfter);
            return;
        }
        rest(qMax(retryAfter, qint64(QRandomGenerator::global()->generateDouble() * double(m_longest))));
        m_longest = qMin(m_longest * 2, m_unit * 60);
    }
    /// Rests so many ms in any case.
    void rest(qint64 duration)
    {
        m_failed = true;
        m_until = m_clock.elapsed() + qMax<qint64>(1, duration);
    }

private:
    const qint64 m_unit;
    qint64 m_longest;
    qint64 m_until = 0; // ms on m_clock
    bool m_failed = false;
    QElapsedTimer m_clock;
};
