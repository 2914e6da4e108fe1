#pragma once

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QMutex>

/// What the configuration file says, read as quillonctl reads it. Its functions may be called from any thread
/// and may take as long as another program keeps the file locked.
class FileState
{
public:
    /// Where the daemon's STREAM output is; an empty target when no output of this kind is switched on.
    struct Stream
    {
        QString target;
        int port = 0;
    };
    struct Snapshot
    {
        QJsonArray radios;
        QJsonArray outputs;
        QJsonArray pending;
        Stream stream;
        QString error; ///< why the file could not be read; empty when it was
    };
    struct Findings
    {
        QJsonArray rows;
        QDateTime checked; ///< invalid before the first check
    };

    explicit FileState(const QString &configFile) : m_configFile(configFile) { }

    Snapshot read() const;
    /// What the last check has found.
    Findings findings() const;
    /// Checks now, which takes up to two seconds for each server that does not answer. One check at a time:
    /// who comes meanwhile gets its outcome.
    Findings check();

    /// Something that is another one after each change of the file.
    QString stamp() const;
    QString configFile() const { return m_configFile; }

private:
    const QString m_configFile;
    QMutex m_checking;
    mutable QMutex m_mutex;
    Findings m_findings;
};

/// A finding of the console's own, in the form of the others.
QJsonObject errorFinding(const QString &subject, const QString &problem, const QString &remedy);
