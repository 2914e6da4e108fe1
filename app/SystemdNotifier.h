#pragma once

#include <QObject>
#include <QTimer>

/// Tells systemd that the daemon is ready, once the event loop runs, and then that it is alive, from the
/// event loop at a quarter of the interval that systemd asks for, and before each long wait. Started by
/// anything else it does nothing. It never waits: a sign of life for which systemd has no room is dropped.
/// See sd_notify(3) and sd_watchdog_enabled(3).
class SystemdNotifier : public QObject
{
    Q_OBJECT

public:
    explicit SystemdNotifier(QObject *parent = nullptr);

private:
    void tellReady() const;

    QTimer m_watchdogTimer;
};
