#include "tools/console/Check.h"

#include "tools/console/FileState.h"

#include <QCoreApplication>
#include <QJsonDocument>

namespace {

const int deadlineMs = 120 * 1000;
const int recentSeconds = 60;

} // namespace

Check::Check(const QString &configFile, QObject *parent) : QObject(parent)
{
    m_process.setProgram(QCoreApplication::applicationDirPath() + QStringLiteral("/quillonctl"));
    m_process.setArguments({QStringLiteral("--configfile"), configFile, QStringLiteral("check"),
        QStringLiteral("--json"), QStringLiteral("--spare-working")});
    m_process.setStandardErrorFile(QProcess::nullDevice()); // reading the file tells the same
    m_deadline.setSingleShot(true);
    m_deadline.setInterval(deadlineMs);
    connect(&m_deadline, &QTimer::timeout, &m_process, &QProcess::kill);
    connect(&m_process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this, &Check::take);
    connect(&m_process, &QProcess::errorOccurred, this, &Check::tellThatItIsMissing);
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

void Check::take()
{
    m_deadline.stop();
    const QJsonDocument found = QJsonDocument::fromJson(m_process.readAllStandardOutput());
    m_findings = found.isArray() ? Findings{found.array(), QDateTime::currentDateTimeUtc()} : Findings{};
    emit finished();
}

void Check::tellThatItIsMissing(QProcess::ProcessError error)
{
    if (error != QProcess::FailedToStart)
        return;
    m_deadline.stop();
    m_findings = {
        {errorFinding(QStringLiteral("console"),
            QStringLiteral("%1 cannot be started: %2").arg(m_process.program(), m_process.errorString()),
            QStringLiteral("install it beside quillon-console"))},
        QDateTime::currentDateTimeUtc()};
    emit finished();
}
