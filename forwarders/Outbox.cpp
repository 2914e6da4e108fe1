#include "forwarders/Outbox.h"

#include "forwarders/OutboxFiles.h"

#include <QDebug>
#include <QFile>
#include <QUuid>

#include <limits>

namespace {

constexpr int busyTimeout = 50; // ms; radios wait meanwhile
// One commit for so many sequence numbers, so that those of messages that never touch the disk cost nothing.
constexpr qint64 reservedAtOnce = 1000000;
constexpr qint64 greatestSequence = std::numeric_limits<qint64>::max() / 2;
constexpr int longestRefused = 64 * 1024; // bytes; a longer text is kept in part
constexpr int droppedAtOnce = 100;
constexpr int mostDropped = 5000; // in one commit; radios wait meanwhile
constexpr int longestValue = 32 * 1024 * 1024; // bytes; a damaged file may claim any length

bool isDamage(const SqliteError &error)
{
    switch (error.code & 0xff) {
    case SQLITE_ERROR: // a table is missing, or a value of another kind than was written
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
    case SQLITE_TOOBIG:
    case SQLITE_NOMEM: // a damaged record claims to need it; a machine without memory would end the daemon
        return true;
    default:
        return false;
    }
}

[[noreturn]] void failAsDamaged(const char *what)
{
    throw SqliteError{SQLITE_CORRUPT, QString::fromLatin1(what)};
}

qint64 singleInteger(const SqliteConnection &connection, const char *statement)
{
    SqliteStatement query(connection, statement);
    return query.next() ? query.integer(0) : 0;
}

bool isReadOnly(const SqliteConnection &connection)
{
    return sqlite3_db_readonly(connection.handle(), "main") == 1;
}

/// Undoes what was done since it was made, unless it is committed.
class Transaction
{
public:
    explicit Transaction(SqliteConnection &connection) : m_connection(connection)
    {
        m_connection.run("BEGIN IMMEDIATE");
    }
    ~Transaction()
    {
        if (!sqlite3_get_autocommit(m_connection.handle()))
            sqlite3_exec(m_connection.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
    Q_DISABLE_COPY(Transaction)
    void commit() { m_connection.run("COMMIT"); }

private:
    SqliteConnection &m_connection;
};

/// Nothing that a file brings along is to run or to be believed.
void distrust(const SqliteConnection &connection)
{
    sqlite3 *database = connection.handle();
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr); // a stop is to be short
    sqlite3_limit(database, SQLITE_LIMIT_LENGTH, longestValue);
}

} // namespace

const char *const Outbox::schema[] = {
    "CREATE TABLE message (sequence INTEGER PRIMARY KEY, json TEXT NOT NULL)",
    "CREATE TABLE refused (sequence INTEGER PRIMARY KEY, reason TEXT NOT NULL, json TEXT NOT NULL)",
    "CREATE TABLE state (uuid TEXT NOT NULL, reserved INTEGER NOT NULL, waiting INTEGER NOT NULL,"
    " dropped INTEGER NOT NULL, refused INTEGER NOT NULL)",
};

Outbox::~Outbox()
{
    if (m_connection && !hasMoved() && m_next < m_reserved)
        attempt(WritesAgain, [this] { reserve(m_next); });
}

/// Runs an action on the open file; false when that fails. One on a damaged file is tried on a new one.
template <typename Action>
bool Outbox::attempt(Proof proof, Action action)
{
    for (int tries = 0; tries < 2; ++tries) {
        try {
            ensureOpen();
            action();
        } catch (const SqliteError &error) {
            handleFailure(proof, error);
            if (isDamage(error))
                continue;
            return false;
        }
        handleSuccess(proof);
        return true;
    }
    return false;
}

/// Whether the open file is no longer what stands under its name: what goes there is lost.
bool Outbox::hasMoved() const
{
    int result = 0;
    sqlite3_file_control(m_connection->handle(), nullptr, SQLITE_FCNTL_HAS_MOVED, &result);
    return result != 0;
}

void Outbox::ensureOpen()
{
    if (m_connection && !hasMoved())
        return;
    if (m_connection)
        qInfo() << "The outbox" << m_path << "was taken away and a new one is begun";
    m_connection.reset();
    try {
        open();
    } catch (const SqliteError &) {
        m_connection.reset();
        throw;
    }
}

void Outbox::open()
{
    m_connection =
        std::make_unique<SqliteConnection>(m_path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, busyTimeout);
    distrust(*m_connection);
    const bool mayBeWritten = !isReadOnly(*m_connection);
    singleInteger(*m_connection, "PRAGMA schema_version"); // reads the header, which may forbid to write, too
    if (mayBeWritten && isReadOnly(*m_connection))
        failAsDamaged("its header names a format that cannot be written");
    // Commits append to the log and are synchronised once each; who reads the file holds nobody up. A commit
    // changes a few rows: small pages halve what it writes.
    m_connection->run("PRAGMA page_size = 1024; PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 4000;"
                      "PRAGMA synchronous = FULL; PRAGMA cell_size_check = ON");
    // The log stays, so that a full disk has room for the changes that make room.
    int keepLog = 1;
    sqlite3_file_control(m_connection->handle(), nullptr, SQLITE_FCNTL_PERSIST_WAL, &keepLog);
    if (singleInteger(*m_connection, "SELECT COUNT(*) FROM sqlite_master") == 0)
        create();
    checkSchema();
    readState();
}

void Outbox::create()
{
    Transaction transaction(*m_connection);
    for (const char *statement : schema)
        m_connection->run(statement);
    // A file that takes the place of a damaged one goes on with the numbers of messages that are in memory.
    const QByteArray uuid = m_uuid.isEmpty() ? QUuid::createUuid().toByteArray(QUuid::WithoutBraces) : m_uuid;
    SqliteStatement(*m_connection, "INSERT INTO state VALUES (?, ?, 0, 0, 0)").bind(uuid, m_next).run();
    transaction.commit();
}

void Outbox::checkSchema() const
{
    SqliteStatement query(*m_connection, "SELECT sql FROM sqlite_master ORDER BY rowid");
    for (const char *statement : schema) {
        if (!query.next() || query.bytes(0) != statement)
            failAsDamaged("this is no outbox");
    }
    if (query.next())
        failAsDamaged("there is something in it that is no part of an outbox");
}

void Outbox::readState()
{
    SqliteStatement query(*m_connection, "SELECT uuid, reserved FROM state");
    if (!query.next())
        failAsDamaged("its name is missing");
    const QByteArray uuid = query.bytes(0);
    const qint64 reserved = query.integer(1);
    const qint64 last = singleInteger(*m_connection, "SELECT MAX(sequence) FROM message");
    if (QUuid(uuid).toByteArray(QUuid::WithoutBraces) != uuid || reserved < 1
        || qMax(reserved, last) > greatestSequence)
        failAsDamaged("its name or its numbers cannot be right");
    m_uuid = uuid;
    m_lastStored = last;
    m_next = qMax(m_next, qMax(reserved, last + 1));
    m_reserved = m_next;
}

std::optional<qint64> Outbox::lastStored()
{
    if (!m_connection && !attempt(ReadsAgain, [] {}))
        return {};
    return m_lastStored;
}

qint64 Outbox::nextSequence()
{
    if (!hasNumbers() && !attempt(WritesAgain, [this] {
            if (m_next >= m_reserved)
                reserve(m_next + reservedAtOnce);
        }))
        return 0;
    return m_next++;
}

void Outbox::reserve(qint64 reserved)
{
    SqliteStatement(*m_connection, "UPDATE state SET reserved = ?").bind(reserved).run();
    m_reserved = reserved;
}

std::optional<int> Outbox::apply(const OutboxChange &change)
{
    int dropped = 0;
    if (!attempt(WritesAgain, [&] { applyInTransaction(change, &dropped); }))
        return {};
    return dropped;
}

bool Outbox::remove(const QVector<SequenceRange> &ranges)
{
    OutboxChange removals;
    removals.removed = ranges;
    int dropped = 0;
    return attempt(ReadsAgain, [&] { applyInTransaction(removals, &dropped); });
}

bool Outbox::probe()
{
    return attempt(WritesAgain, [this] { reserve(m_reserved + 1); });
}

void Outbox::applyInTransaction(const OutboxChange &change, int *dropped)
{
    Transaction transaction(*m_connection);
    qint64 waiting = 0;
    SqliteStatement removal(*m_connection, "DELETE FROM message WHERE sequence BETWEEN ? AND ?");
    const auto remove = [&](qint64 first, qint64 last) {
        removal.bind(first, last).run();
        waiting -= m_connection->changes();
    };
    for (const SequenceRange &range : change.removed)
        remove(range.first, range.last);
    for (const RefusedMessage &refused : change.refused)
        remove(refused.message.sequence, refused.message.sequence);
    keepRefused(change.refused);

    SqliteStatement insertion(*m_connection, "INSERT INTO message VALUES (?, ?)");
    qint64 last = m_lastStored;
    for (const OutboxMessage &message : change.added) {
        insertion.bind(message.sequence, message.json).run();
        last = qMax(last, message.sequence);
    }
    waiting += change.added.size();
    *dropped = dropOldest();
    SqliteStatement(
        *m_connection, "UPDATE state SET waiting = waiting + ?, dropped = dropped + ?, refused = refused + ?")
        .bind(waiting - *dropped, change.dropped + *dropped, qint64(change.refused.size()))
        .run();
    transaction.commit();
    m_lastStored = last;
}

void Outbox::keepRefused(const QVector<RefusedMessage> &refused)
{
    if (refused.isEmpty())
        return;
    SqliteStatement insertion(*m_connection, "INSERT OR REPLACE INTO refused VALUES (?, ?, ?)");
    for (const RefusedMessage &each : refused)
        insertion.bind(each.message.sequence, each.reason.toUtf8(), each.message.json.left(longestRefused))
            .run();
    SqliteStatement(*m_connection,
        "DELETE FROM refused WHERE sequence NOT IN"
        " (SELECT sequence FROM refused ORDER BY sequence DESC LIMIT ?)")
        .bind(qint64(keptRefused))
        .run();
}

int Outbox::dropOldest()
{
    int dropped = 0;
    SqliteStatement removal(*m_connection,
        "DELETE FROM message WHERE sequence IN (SELECT sequence FROM message ORDER BY sequence LIMIT ?)");
    while (dropped < mostDropped && usedBytes() > m_limit) {
        removal.bind(qint64(droppedAtOnce)).run();
        if (m_connection->changes() == 0)
            break;
        dropped += m_connection->changes();
    }
    return dropped;
}

qint64 Outbox::usedBytes() const
{
    const qint64 pages = singleInteger(*m_connection, "PRAGMA page_count")
        - singleInteger(*m_connection, "PRAGMA freelist_count");
    return pages * singleInteger(*m_connection, "PRAGMA page_size");
}

std::optional<QVector<OutboxMessage>> Outbox::read(SequenceRange range, int count, int bytes)
{
    QVector<OutboxMessage> result;
    const auto readRows = [&] {
        result.clear();
        SqliteStatement query(*m_connection,
            "SELECT sequence, json FROM message WHERE sequence BETWEEN ? AND ? ORDER BY sequence LIMIT ?");
        query.bind(range.first, range.last, qint64(count));
        for (int size = 0; query.next();) {
            result.append({query.integer(0), query.bytes(1)});
            size += result.last().requestBytes();
            if (size > bytes && result.size() > 1)
                result.removeLast();
            if (size >= bytes)
                return;
        }
    };
    if (!attempt(ReadsAgain, readRows))
        return {};
    return result;
}

void Outbox::handleSuccess(Proof proof)
{
    if (works() || (m_writeFailed && proof == ReadsAgain))
        return;
    qInfo() << "The outbox" << m_path << "can be used again";
    m_failure.clear();
    m_writeFailed = false;
}

void Outbox::handleFailure(Proof missing, const SqliteError &error)
{
    m_writeFailed = m_writeFailed || missing == WritesAgain;
    const bool isNew = error.text != m_failure;
    if (isNew)
        qInfo() << "The outbox" << m_path << "cannot be used :" << error.text;
    m_failure = error.text;
    if (isDamage(error)) {
        moveAside(isNew);
        return;
    }
    if (error.code == SQLITE_READONLY)
        m_connection.reset(); // one that is opened anew finds out when the file can be written again
    // A log that is written back begins anew where it is, which takes no room on a full disk.
    if (m_connection)
        sqlite3_wal_checkpoint_v2(
            m_connection->handle(), nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
}

/// Not a new failure: the file could not be moved before, which was logged then.
void Outbox::moveAside(bool isNew)
{
    const QString aside = damagedOutboxPath(m_path);
    m_connection.reset();
    m_lastStored = 0;
    if (!QFile::rename(m_path, aside)) {
        if (isNew)
            qInfo() << "The damaged outbox" << m_path << "cannot be moved aside";
        return;
    }
    for (const char *part : {"-wal", "-shm"})
        QFile::rename(m_path + QLatin1String(part), aside + QLatin1String(part));
    qInfo() << "The damaged outbox was moved aside to" << aside << "and a new one is begun";
}
