#pragma once

#include "forwarders/Sqlite.h"

#include <QJsonArray>
#include <QJsonObject>

#include <memory>

/// An outbox as an outside tool uses it, while the daemon works on it or not. Whatever fails throws
/// CommandError.
class OutboxFile
{
public:
    enum Access {
        ReadOnly,
        ReadWrite,
    };

    /// Opens an existing file; waits up to `busyTimeoutMs` whenever another program has it locked.
    OutboxFile(const QString &path, Access access, int busyTimeoutMs);

    /// waiting, oldest (its age in seconds; absent when nothing waits, and when it would be more than a year:
    /// then the clock was set right since), dropped, refused.
    QJsonObject counts();
    /// The refused messages that are kept, the oldest first: sequence, reason, message.
    QJsonArray refused();
    /// Takes out everything that waits or was refused; returns how many waited.
    qint64 clear();

private:
    const QString m_path;
    std::unique_ptr<SqliteConnection> m_connection;
};

/// The counts of an output's outbox as members of its row in a listing. What cannot be read is the member
/// problem instead; an output that never ran has no outbox, and counts of 0.
QJsonObject outboxCounts(const QString &path, int busyTimeoutMs);

/// A table of rows that hold an id and the counts of an outbox.
void printOutboxes(const QJsonArray &rows, bool withFiles);
