#pragma once

#include <QByteArray>
#include <QString>

#include <sqlite3.h>

/// What an SQLite call ended with, when it was no success.
struct SqliteError
{
    int code; ///< extended result code; its low byte says what, the others refine it
    QString text;
};

/// A connection to an SQLite file of its own, beside that of ConfigDatabase. Whatever fails throws
/// SqliteError.
class SqliteConnection
{
public:
    /// `flags` as for sqlite3_open_v2(), without URIs.
    SqliteConnection(const QString &path, int flags, int busyTimeoutMs);
    ~SqliteConnection() { sqlite3_close(m_database); }
    Q_DISABLE_COPY(SqliteConnection)

    /// Runs statements that yield nothing.
    void run(const char *statements);
    /// How many rows the last statement changed.
    int changes() const { return sqlite3_changes(m_database); }
    sqlite3 *handle() const { return m_database; }

private:
    sqlite3 *m_database = nullptr;
};

/// One prepared statement.
class SqliteStatement
{
public:
    SqliteStatement(const SqliteConnection &connection, const char *text);
    ~SqliteStatement() { sqlite3_finalize(m_statement); }
    Q_DISABLE_COPY(SqliteStatement)

    /// Binds values, numbers from 1 on, and begins anew. Texts and bytes have to outlive the run.
    template <typename... Values>
    SqliteStatement &bind(const Values &...values)
    {
        sqlite3_reset(m_statement);
        int index = 0;
        (bindAt(++index, values), ...);
        return *this;
    }
    /// Goes to the next row; false when there is none.
    bool next();
    /// Runs to the end.
    void run()
    {
        while (next()) { }
    }

    qint64 integer(int column) const { return sqlite3_column_int64(m_statement, column); }
    QByteArray bytes(int column) const;

private:
    void bindAt(int index, qint64 value) { sqlite3_bind_int64(m_statement, index, value); }
    void bindAt(int index, const QByteArray &value)
    {
        sqlite3_bind_text(m_statement, index, value.constData(), value.size(), SQLITE_STATIC);
    }

    sqlite3_stmt *m_statement = nullptr;
};
