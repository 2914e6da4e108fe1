#include "forwarders/Sqlite.h"

#include <QFile>

namespace {

[[noreturn]] void fail(sqlite3 *database)
{
    if (!database)
        throw SqliteError{SQLITE_NOMEM, QStringLiteral("out of memory")};
    throw SqliteError{sqlite3_extended_errcode(database), QString::fromUtf8(sqlite3_errmsg(database))};
}

} // namespace

SqliteConnection::SqliteConnection(const QString &path, int flags, int busyTimeoutMs)
{
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &m_database, flags, nullptr) != SQLITE_OK) {
        const SqliteError error{m_database ? sqlite3_extended_errcode(m_database) : SQLITE_NOMEM,
            QString::fromUtf8(m_database ? sqlite3_errmsg(m_database) : "out of memory")};
        sqlite3_close(m_database);
        throw error;
    }
    sqlite3_extended_result_codes(m_database, 1);
    sqlite3_busy_timeout(m_database, busyTimeoutMs);
}

void SqliteConnection::run(const char *statements)
{
    if (sqlite3_exec(m_database, statements, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(m_database);
}

SqliteStatement::SqliteStatement(const SqliteConnection &connection, const char *text)
{
    if (sqlite3_prepare_v2(connection.handle(), text, -1, &m_statement, nullptr) != SQLITE_OK)
        fail(connection.handle());
}

bool SqliteStatement::next()
{
    const int result = sqlite3_step(m_statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        fail(sqlite3_db_handle(m_statement));
    return result == SQLITE_ROW;
}

QByteArray SqliteStatement::bytes(int column) const
{
    const auto *data = static_cast<const char *>(sqlite3_column_blob(m_statement, column));
    return {data, sqlite3_column_bytes(m_statement, column)};
}
