#pragma once

#include "tools/quillonctl/StreamTarget.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QMutex>

#include <optional>

/// What the configuration file says, read as quillonctl reads it. Its functions may be called from any thread
/// and may take as long as another program keeps the file locked.
class FileState
{
public:
    struct Snapshot
    {
        QJsonArray radios;
        QJsonArray outputs;
        QJsonArray pending;
        std::optional<StreamTarget> stream; ///< where the STREAM output is that is switched on
        QString error; ///< why the file could not be read; empty when it was
    };
    struct Findings
    {
        QJsonArray rows;
        QDateTime checked; ///< invalid as long as the file could not be looked through
    };

    explicit FileState(const QString &configFile) : m_configFile(configFile) { }

    Snapshot read() const;
    /// What the last check has found.
    Findings findings() const;
    /// Checks now, which takes some seconds for each server that does not answer.
    Findings check();

    /// Something that is another one after each change of the file.
    QString stamp() const;
    QString configFile() const { return m_configFile; }

private:
    const QString m_configFile;
    mutable QMutex m_mutex;
    Findings m_findings;
};

/// A finding of the console's own, in the form of the others.
QJsonObject errorFinding(const QString &subject, const QString &problem, const QString &remedy);
