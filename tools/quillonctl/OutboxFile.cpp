#include "tools/quillonctl/OutboxFile.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Printer.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>

namespace {

constexpr qint64 removedAtOnce = 5000; // messages; the daemon waits meanwhile
constexpr int restMs = 30; // SQLite's tries to get the file lie up to 25 ms apart: the daemon gets its turn

constexpr qint64 credibleAge = 366LL * 86400; // a clock without a battery starts years in the past

/// In seconds; -1 when the clock has been set since.
qint64 ageOf(const QByteArray &message)
{
    const QString date =
        QJsonDocument::fromJson(message).object().value(QLatin1String("transmissionDate")).toString();
    const QDateTime heard = QDateTime::fromString(date, Qt::ISODateWithMs);
    const qint64 age = qMax<qint64>(0, heard.secsTo(QDateTime::currentDateTimeUtc()));
    return age > credibleAge ? -1 : age;
}

QString ageText(const QJsonObject &row)
{
    if (!row.contains(QLatin1String("oldest")))
        return {};
    const qint64 seconds = qint64(row.value(QLatin1String("oldest")).toDouble());
    if (seconds < 120)
        return QStringLiteral("%1 s").arg(seconds);
    if (seconds < 120LL * 60)
        return QStringLiteral("%1 min").arg(seconds / 60);
    return seconds < 48LL * 3600 ? QStringLiteral("%1 h").arg(seconds / 3600)
                                 : QStringLiteral("%1 days").arg(seconds / 86400);
}

/// Turns what SQLite reports into what a command reports.
template <typename Action>
auto guarded(const QString &path, Action action)
{
    try {
        return action();
    } catch (const SqliteError &error) {
        throw CommandError(QStringLiteral("the outbox %1 cannot be used: %2").arg(path, error.text));
    }
}

} // namespace

OutboxFile::OutboxFile(const QString &path, Access access, int busyTimeoutMs) : m_path(path)
{
    guarded(m_path, [&] {
        m_connection = std::make_unique<SqliteConnection>(
            path, access == ReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE, busyTimeoutMs);
    });
}

QJsonObject OutboxFile::counts()
{
    return guarded(m_path, [this] {
        SqliteStatement state(*m_connection, "SELECT waiting, dropped, refused FROM state");
        SqliteStatement oldest(*m_connection, "SELECT json FROM message ORDER BY sequence LIMIT 1");
        QJsonObject result;
        if (!state.next())
            throw SqliteError{SQLITE_CORRUPT, QStringLiteral("its counters are missing")};
        result[QStringLiteral("waiting")] = state.integer(0);
        const qint64 age = oldest.next() ? ageOf(oldest.bytes(0)) : -1;
        if (age >= 0)
            result[QStringLiteral("oldest")] = age;
        result[QStringLiteral("dropped")] = state.integer(1);
        result[QStringLiteral("refused")] = state.integer(2);
        return result;
    });
}

QJsonArray OutboxFile::refused()
{
    return guarded(m_path, [this] {
        SqliteStatement query(*m_connection, "SELECT sequence, reason, json FROM refused ORDER BY sequence");
        QJsonArray result;
        while (query.next())
            result.append(QJsonObject{
                {QStringLiteral("sequence"), query.integer(0)},
                {QStringLiteral("reason"), QString::fromUtf8(query.bytes(1))},
                {QStringLiteral("message"), QString::fromUtf8(query.bytes(2))},
            });
        return result;
    });
}

qint64 OutboxFile::clear()
{
    return guarded(m_path, [this] {
        SqliteStatement removal(
            *m_connection, "DELETE FROM message WHERE sequence IN (SELECT sequence FROM message LIMIT ?)");
        SqliteStatement counting(
            *m_connection, "UPDATE state SET waiting = max(0, waiting - ?), dropped = dropped + ?");
        qint64 removed = 0;
        for (qint64 changes = removedAtOnce; changes == removedAtOnce;) {
            m_connection->run("BEGIN IMMEDIATE");
            removal.bind(removedAtOnce).run();
            changes = m_connection->changes();
            counting.bind(changes, changes).run();
            m_connection->run("COMMIT");
            removed += changes;
            sqlite3_sleep(restMs);
        }
        m_connection->run("DELETE FROM refused");
        return removed;
    });
}

QJsonObject outboxCounts(const QString &path, int busyTimeoutMs)
{
    if (!QFile::exists(path))
        return {
            {QStringLiteral("waiting"), 0}, {QStringLiteral("dropped"), 0}, {QStringLiteral("refused"), 0}};
    try {
        return OutboxFile(path, OutboxFile::ReadOnly, busyTimeoutMs).counts();
    } catch (const CommandError &error) {
        return {{QStringLiteral("problem"), error.message()}};
    }
}

void printOutboxes(const QJsonArray &rows, bool withFiles)
{
    QJsonArray shown;
    bool hasProblem = false;
    for (const auto &value : rows) {
        QJsonObject row = value.toObject();
        row[QStringLiteral("age")] = ageText(row);
        hasProblem = hasProblem || row.contains(QLatin1String("problem"));
        shown.append(row);
    }
    QVector<Column> columns{
        {QStringLiteral("id"), QStringLiteral("OUTBOX")},
        {QStringLiteral("waiting"), QStringLiteral("WAITING")},
        {QStringLiteral("age"), QStringLiteral("OLDEST")},
        {QStringLiteral("dropped"), QStringLiteral("DROPPED")},
        {QStringLiteral("refused"), QStringLiteral("REFUSED")},
    };
    if (withFiles)
        columns += {
            {QStringLiteral("output"), QStringLiteral("OUTPUT")},
            {QStringLiteral("file"), QStringLiteral("FILE")},
        };
    if (hasProblem)
        columns.append({QStringLiteral("problem"), QStringLiteral("PROBLEM")});
    printTable(columns, shown, QStringLiteral("There is no outbox."));
}
