#pragma once

#include "support/Literals.h"

#include <QtTest>

/// The built daemon as a child process, with what it writes on standard error.
class Daemon : public QProcess
{
public:
    ~Daemon() override { end(); }

    void start(const QStringList &arguments) { QProcess::start(program, arguments); }
    /// Starts `shell`, a line in which "$@" stands for the daemon and its arguments, in a mount namespace of
    /// its own; false where the machine does not allow that.
    bool startInMountNamespace(const QString &shell, const QStringList &arguments)
    {
        const QStringList unshare{"--mount"_s, "--map-root-user"_s};
        if (QProcess::execute("unshare"_s, unshare + QStringList("true"_s)) != 0)
            return false;
        QProcess::start(
            "unshare"_s, unshare + QStringList{"sh"_s, "-ec"_s, shell, "sh"_s, program} + arguments);
        return waitForStarted();
    }

    QString log()
    {
        m_log += readAllStandardError();
        return QString::fromUtf8(m_log);
    }
    bool waitForLog(const QString &text)
    {
        return QTest::qWaitFor([&] { return log().contains(text); }, 10000);
    }
    /// Waits for the end, or kills it; the exit code, -1 when it did not end by itself or was a crash.
    int waitForExit()
    {
        if (state() != NotRunning && !waitForFinished(15000)) {
            kill();
            waitForFinished();
        }
        log();
        return exitStatus() == NormalExit ? exitCode() : -1;
    }
    /// Sends SIGTERM and waits for the end; the exit code, or -1.
    int end()
    {
        terminate();
        return waitForExit();
    }

private:
    const QString program = QUILLON_BIN_DIR "/quillon"_s;
    QByteArray m_log;
};
