#include "tools/console/Check.h"

#include "tools/console/FileState.h"

#include <QCoreApplication>
#include <QJsonDocument>

namespace {

const int deadlineMs = 600 * 1000;
const int unreadableCode = 2; ///< nothing was printed then: the file could not be read
const int recentSeconds = 60;

} // namespace

Check::Check(const QString &configFile, QObject *parent) : QObject(parent)
{
    m_process.setProgram(QCoreApplication::applicationDirPath() + QStringLiteral("/quillonctl"));
    m_process.setArguments({QStringLiteral("--configfile"), configFile, QStringLiteral("check"),
        QStringLiteral("--json"), QStringLiteral("--spare-working")});
    m_process.setStandardErrorFile(
        QProcess::nullDevice()); // what keeps a file from being read is told anyway
    m_deadline.setSingleShot(true);
    m_deadline.setInterval(deadlineMs);
    connect(&m_deadline, &QTimer::timeout, &m_process, &QProcess::kill);
    connect(&m_process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this, &Check::take);
    connect(&m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            fail(m_process.errorString());
    });
}

Check::~Check()
{
    m_process.disconnect(this);
    m_process.kill();
    m_process.waitForFinished();
}

void Check::start()
{
    if (m_process.state() != QProcess::NotRunning)
        return;
    m_deadline.start();
    m_process.start(QIODevice::ReadOnly);
}

bool Check::isRecent() const
{
    const qint64 age = m_findings.checked.secsTo(QDateTime::currentDateTimeUtc());
    return m_findings.checked.isValid() && age >= 0 && age < recentSeconds;
}

void Check::take(int exitCode, QProcess::ExitStatus status)
{
    const QJsonDocument found = QJsonDocument::fromJson(m_process.readAllStandardOutput());
    if (status == QProcess::CrashExit)
        fail(m_process.errorString());
    else if (found.isArray())
        end({found.array(), QDateTime::currentDateTimeUtc()});
    else if (exitCode == unreadableCode)
        end({});
    else
        fail(QStringLiteral("exit code %1").arg(exitCode));
}

void Check::end(const Findings &findings)
{
    m_deadline.stop();
    m_findings = findings;
    emit finished();
}

void Check::fail(const QString &reason)
{
    const QJsonObject finding =
        errorFinding(QStringLiteral("console"), QStringLiteral("quillonctl check failed: %1").arg(reason),
            QStringLiteral("see whether quillonctl stands beside quillon-console, and try it there"));
    end({{finding}, QDateTime::currentDateTimeUtc()});
}
