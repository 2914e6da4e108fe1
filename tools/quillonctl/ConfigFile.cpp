#include "tools/quillonctl/ConfigFile.h"

#include "tools/quillonctl/CommandError.h"

#include <QFile>
#include <QFileInfo>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <QUrl>
#include <QUuid>

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

const QString requiredTables[] = {QStringLiteral("radio_adapters"), QStringLiteral("port_blacklist"),
    QStringLiteral("system_configuration"), QStringLiteral("data_forwarder"),
    QStringLiteral("pending_actions")};

struct Failure
{
    int sqliteCode;
    QString meaning;
};

const Failure failures[] = {
    {5, QStringLiteral("is locked by another program; try again")},
    {8 | (3 << 8),
        QStringLiteral("was left in the middle of a change, which the daemon or a command that changes "
                       "something takes back")},
    {8, QStringLiteral("is read-only")},
    {11, QStringLiteral("is a damaged database")},
    {13, QStringLiteral("cannot grow: the disk is full")},
    {14, QStringLiteral("cannot be opened; are the file and its folder yours to use?")},
    {26, QStringLiteral("is no SQLite database")},
};

void requireAccess(const QString &path, int mode, const QString &message)
{
    if (access(QFile::encodeName(path).constData(), mode) != 0)
        throw CommandError(message.arg(path, QString::fromLocal8Bit(std::strerror(errno))));
}

/// Looks before SQLite does, since it would make a missing file and open a read-only one without a word.
void requireFile(const QString &path, ConfigFile::Access access)
{
    const QFileInfo info(path);
    requireAccess(path, R_OK, QStringLiteral("%1 cannot be read: %2"));
    if (!info.isFile())
        throw CommandError(QStringLiteral("%1 is no file").arg(path));
    if (access == ConfigFile::ReadOnly)
        return;
    requireAccess(path, W_OK, QStringLiteral("%1 cannot be changed: %2"));
    requireAccess(info.absolutePath(), W_OK | X_OK,
        QStringLiteral("the folder %1 cannot be written, and changes need a journal beside the file: %2"));
}

/// A URI with a mode, because Qt's driver by itself would create a file that vanishes after the check.
QString uriOf(const QString &path, ConfigFile::Access access)
{
    return QStringLiteral("file:%1?mode=%2")
        .arg(QString::fromLatin1(QUrl::toPercentEncoding(QFileInfo(path).absoluteFilePath(), "/")),
            access == ConfigFile::ReadOnly ? QStringLiteral("ro") : QStringLiteral("rw"));
}

QString placeholders(int count)
{
    return QStringList(QVector<QString>(count, QStringLiteral("?")).toList()).join(QStringLiteral(", "));
}

QString names(const QVariantMap &columns, const QString &suffix = {})
{
    return QStringList(columns.keys()).join(suffix + QStringLiteral(", ")) + suffix;
}

} // namespace

ConfigFile::Connection::Connection()
    : name(QUuid::createUuid().toString()),
      database(QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name))
{
}

ConfigFile::Connection::~Connection()
{
    database = QSqlDatabase(); // a connection can only be removed once nothing refers to it
    QSqlDatabase::removeDatabase(name);
}

ConfigFile::ConfigFile(const QString &path, Access access, int busyTimeoutMs) : m_path(path)
{
    requireFile(path, access);
    QSqlDatabase &database = m_connection.database;
    database.setDatabaseName(uriOf(path, access));
    QString options = QStringLiteral("QSQLITE_OPEN_URI;QSQLITE_BUSY_TIMEOUT=%1").arg(busyTimeoutMs);
    if (access == ReadOnly)
        options += QStringLiteral(";QSQLITE_OPEN_READONLY");
    database.setConnectOptions(options);
    if (!database.open())
        fail(database.lastError());
    requireTables();
}

void ConfigFile::requireTables() const
{
    QStringList tables;
    QSqlQuery query = run(QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table'"), {});
    while (query.next())
        tables.append(query.value(0).toString());
    for (const QString &table : requiredTables) {
        if (!tables.contains(table))
            throw CommandError(
                QStringLiteral("%1 is no Quillon configuration of this release: the table %2 is "
                               "missing (the daemon brings an older file up to date)")
                    .arg(m_path, table));
    }
}

QList<QSqlRecord> ConfigFile::rows(const QString &table) const
{
    QList<QSqlRecord> result;
    QSqlQuery query = run(QStringLiteral("SELECT * FROM %1 ORDER BY ids").arg(table), {});
    while (query.next())
        result.append(query.record());
    return result;
}

QSqlRecord ConfigFile::row(const QString &table, int id) const
{
    QSqlQuery query = run(QStringLiteral("SELECT * FROM %1 WHERE ids = ?").arg(table), {id});
    if (!query.next())
        throw CommandError(QStringLiteral("there is no row with the id %1").arg(id));
    return query.record();
}

int ConfigFile::insert(const QString &table, const QVariantMap &columns) const
{
    const QString statement = QStringLiteral("INSERT INTO %1 (%2) VALUES (%3)")
                                  .arg(table, names(columns), placeholders(columns.size()));
    return run(statement, columns.values()).lastInsertId().toInt();
}

int ConfigFile::insertUnlessPresent(
    const QString &table, const QVariantMap &columns, const QString &key) const
{
    const QString statement =
        QStringLiteral("INSERT INTO %1 (%2) SELECT %3 WHERE NOT EXISTS (SELECT 1 FROM %1 WHERE %4 = ?)")
            .arg(table, names(columns), placeholders(columns.size()), key);
    const QSqlQuery query = run(statement, columns.values() << columns.value(key));
    return query.numRowsAffected() > 0 ? query.lastInsertId().toInt() : 0;
}

int ConfigFile::update(
    const QString &table, const QVariantMap &columns, const QString &key, const QVariant &value) const
{
    const QString statement = QStringLiteral("UPDATE %1 SET %2 WHERE %3 = ?")
                                  .arg(table, names(columns, QStringLiteral(" = ?")), key);
    return run(statement, columns.values() << value).numRowsAffected();
}

int ConfigFile::remove(const QString &table, const QString &key, const QVariant &value) const
{
    return run(QStringLiteral("DELETE FROM %1 WHERE %2 = ?").arg(table, key), {value}).numRowsAffected();
}

int ConfigFile::clear(const QString &table) const
{
    // Without a condition SQLite may count no rows.
    return run(QStringLiteral("DELETE FROM %1 WHERE 1").arg(table), {}).numRowsAffected();
}

QSqlQuery ConfigFile::run(const QString &statement, const QVariantList &values) const
{
    QSqlQuery query(m_connection.database);
    query.setForwardOnly(true);
    const bool prepared = query.prepare(statement);
    for (const QVariant &value : values)
        query.addBindValue(value);
    if (!prepared || !query.exec())
        fail(query.lastError());
    return query;
}

void ConfigFile::fail(const QSqlError &error) const
{
    const int code = error.nativeErrorCode().toInt(); // its low byte says what, the others refine it
    for (const Failure &failure : failures) {
        if (failure.sqliteCode == code || failure.sqliteCode == (code & 0xff))
            throw CommandError(m_path + QLatin1Char(' ') + failure.meaning);
    }
    throw CommandError(
        QStringLiteral("%1 cannot be used: %2 (a file of an older release is brought up to date "
                       "by the daemon)")
            .arg(m_path, error.databaseText()));
}
