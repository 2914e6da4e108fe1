#pragma once

#include "tools/quillonctl/StreamTarget.h"

#include <QJsonArray>
#include <QJsonObject>

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

    explicit FileState(const QString &configFile) : m_configFile(configFile) { }

    Snapshot read() const;

    /// Something that is another one after each change of the file.
    QString stamp() const;
    QString configFile() const { return m_configFile; }

private:
    const QString m_configFile;
};

/// A finding of the console's own, in the form of the others.
QJsonObject errorFinding(const QString &subject, const QString &problem, const QString &remedy);
