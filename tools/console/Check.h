#pragma once

#include <QDateTime>
#include <QJsonArray>
#include <QProcess>
#include <QTimer>

/// Has the quillonctl beside this program look for what is wrong. It is a process of its own: it waits for
/// servers, and OpenSSL, which it signs with, would stay in memory.
class Check : public QObject
{
    Q_OBJECT

public:
    struct Findings
    {
        QJsonArray rows;
        QDateTime checked; ///< invalid as long as the file could not be looked through
    };

    explicit Check(const QString &configFile, QObject *parent = nullptr);
    ~Check() override;

    /// Begins a check unless one is under way; finished() tells its end. It takes some seconds for each
    /// server that does not answer.
    void start();
    /// What the last check has found.
    const Findings &findings() const { return m_findings; }
    /// Whether the last check is a minute old at most.
    bool isRecent() const;

signals:
    void finished();

private:
    void take(int exitCode, QProcess::ExitStatus status);
    void end(const Findings &findings);
    /// Ends with the one finding that no check was possible.
    void fail(const QString &reason);

    QProcess m_process;
    QTimer m_deadline;
    Findings m_findings;
};
