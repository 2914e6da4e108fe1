#pragma once

#include <QProcess>
#include <QStringList>

/// The built daemon as a child process, with what it writes on standard error.
class Daemon
{
public:
    ~Daemon();

    void start(const QStringList &arguments);
    void startOn(const QString &databasePath);
    /// Starts `shell`, a line in which "$@" stands for the daemon and its arguments, in a mount namespace of
    /// its own; false where the machine does not allow that.
    bool startInMountNamespace(const QString &shell, const QStringList &arguments);

    /// Waits until standard error holds the text.
    bool waitForLog(const QString &text, int timeoutMs = 10000);
    /// Waits for the end; the exit code, -1 when it does not come or was a crash.
    int waitForExit(int timeoutMs = 10000);
    /// Sends SIGTERM and waits for the end; the exit code, or -1.
    int terminate();

    QString log();
    QProcess &process() { return m_process; }

private:
    QProcess m_process;
    QByteArray m_log;
};
