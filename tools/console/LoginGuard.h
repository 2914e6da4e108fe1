#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>

/// Makes guessing slow: each wrong password doubles the time in which its address gets no further try, from 1
/// s to 5 min, and nobody else waits. An hour after the last one, or after a right one, it begins anew.
class LoginGuard
{
public:
    LoginGuard() { m_clock.start(); }

    /// Starts a try, which counts as wrong unless succeeded() follows. Yields 0, or the ms to wait before the
    /// next try is looked at.
    int begin(const QHostAddress &address);
    void succeeded(const QHostAddress &address);

private:
    struct Failures
    {
        int count = 0;
        qint64 nextTry = 0; ///< ms on m_clock
        qint64 lastTry = 0;
    };

    void forgetOld();

    QHash<QString, Failures> m_failures;
    QElapsedTimer m_clock;
};
