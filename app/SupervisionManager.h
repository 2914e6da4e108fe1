#pragma once

#include <QObject>
#include <QSharedPointer>
#include <QTimer>

class SerialDiscoverer;

/// Lets outside tools steer the daemon: every two seconds takes one row off the pending_actions table and
/// carries it out. "RESTART_APP" ends the event loop with code 0, "REBOOT" reboots the machine, and "DISP,"
/// followed by a text shows that text on every radio. Anything else is logged and dropped.
class SupervisionManager : public QObject
{
    Q_OBJECT

public:
    SupervisionManager(QObject *parent, const QSharedPointer<SerialDiscoverer> &discoverer);

private slots:
    void configuration_check_timeout();

private:
    void showOnEveryRadio(const QString &command);

    QTimer m_checkTimer;
    QSharedPointer<SerialDiscoverer> m_discoverer;
};
