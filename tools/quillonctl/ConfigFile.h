#pragma once

#include <QList>
#include <QSqlDatabase>
#include <QSqlRecord>
#include <QString>
#include <QVariantMap>

class QSqlError;
class QSqlQuery;

/// The daemon's SQLite file as an outside tool uses it: one statement at a time, each holding its lock only
/// while it runs, so that the daemon may work on the file meanwhile. The file is never created or migrated
/// and no status is reset. Whatever fails throws CommandError and leaves the file as it was.
class ConfigFile
{
public:
    enum Access {
        ReadOnly,
        ReadWrite,
    };

    /// Opens an existing file; waits up to `busyTimeoutMs` whenever another program has it locked.
    ConfigFile(const QString &path, Access access, int busyTimeoutMs);

    QString path() const { return m_path; }

    /// Every row of a table, in the order of their ids. A column that an older file lacks reads as null.
    QList<QSqlRecord> rows(const QString &table) const;
    /// The row with this id, which has to exist.
    QSqlRecord row(const QString &table, int id) const;

    /// Inserts a row and returns its id.
    int insert(const QString &table, const QVariantMap &columns) const;
    /// The same, unless a row already has this value in its column `key`; then returns 0.
    int insertUnlessPresent(const QString &table, const QVariantMap &columns, const QString &key) const;
    /// Changes the rows whose column `key` has this value; returns how many there are.
    int update(
        const QString &table, const QVariantMap &columns, const QString &key, const QVariant &value) const;
    /// Removes the rows whose column `key` has this value; returns how many there were.
    int remove(const QString &table, const QString &key, const QVariant &value) const;
    /// Empties a table; returns how many rows there were.
    int clear(const QString &table) const;

private:
    struct Connection
    {
        Connection();
        ~Connection();
        Q_DISABLE_COPY(Connection)

        const QString name; ///< its own, so that threads may each have a file open
        QSqlDatabase database;
    };

    void requireTables() const;
    QSqlQuery run(const QString &statement, const QVariantList &values) const;
    [[noreturn]] void fail(const QSqlError &error) const;

    const QString m_path;
    Connection m_connection;
};
