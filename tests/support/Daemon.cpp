#include "support/Daemon.h"

#include <QTest>

static const QString program = QStringLiteral(QUILLON_BIN_DIR "/quillon");

Daemon::~Daemon()
{
    if (m_process.state() != QProcess::NotRunning)
        terminate();
}

void Daemon::start(const QStringList &arguments)
{
    m_process.start(program, arguments);
    m_process.waitForStarted();
}

void Daemon::startOn(const QString &databasePath)
{
    start({QStringLiteral("--configfile"), databasePath});
}

bool Daemon::startInMountNamespace(const QString &shell, const QStringList &arguments)
{
    const QStringList unshare{QStringLiteral("--mount"), QStringLiteral("--map-root-user")};
    if (QProcess::execute(QStringLiteral("unshare"), unshare + QStringList(QStringLiteral("true"))) != 0)
        return false;
    m_process.start(QStringLiteral("unshare"),
        unshare
            + QStringList{QStringLiteral("sh"), QStringLiteral("-ec"), shell, QStringLiteral("sh"), program}
            + arguments);
    return m_process.waitForStarted();
}

bool Daemon::waitForLog(const QString &text, int timeoutMs)
{
    return QTest::qWaitFor([&] { return log().contains(text); }, timeoutMs);
}

int Daemon::waitForExit(int timeoutMs)
{
    if (m_process.state() != QProcess::NotRunning && !m_process.waitForFinished(timeoutMs))
        return -1;
    log();
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

int Daemon::terminate()
{
    m_process.terminate();
    const int code = waitForExit();
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished();
    }
    return code;
}

QString Daemon::log()
{
    m_log += m_process.readAllStandardError();
    return QString::fromUtf8(m_log);
}
