#pragma once

#include "forwarders/Sqlite.h"

#include <QVector>

#include <memory>
#include <optional>

/// A message that waits for the cloud: the JSON text of a CloudMessage under its sequence number.
struct OutboxMessage
{
    /// How many bytes of a publish request it takes: its text in base64, its attributes and what is around.
    int requestBytes() const { return json.size() / 3 * 4 + 400; }

    qint64 sequence;
    QByteArray json;
};

/// The messages whose sequence number is not below `first` and not above `last`.
struct SequenceRange
{
    qint64 first;
    qint64 last;
};

/// A message that the server will never take, with what it says about it.
struct RefusedMessage
{
    OutboxMessage message;
    QString reason;
};

/// What is to be done with an outbox in one commit.
struct OutboxChange
{
    QVector<OutboxMessage> added;
    QVector<SequenceRange> removed;
    QVector<RefusedMessage> refused; ///< to be removed, too
    qint64 dropped = 0; ///< messages that never came into the file, counted there

    bool isEmpty() const { return added.isEmpty() && removed.isEmpty() && refused.isEmpty() && !dropped; }
};

/// The messages of one output that the cloud has not accepted yet, in an SQLite file of their own. A commit
/// is on the disk when it returns. The file is opened when it is first needed and kept open; nothing is
/// thrown: what fails is logged once, and tried again at the next call. A damaged file
/// is moved aside and a new one begun.
class Outbox
{
public:
    explicit Outbox(const QString &path) : m_path(path) { }
    /// Gives the unused sequence numbers back.
    ~Outbox();
    Q_DISABLE_COPY(Outbox)

    /// Names this outbox among all outboxes; made with the file. Empty while there is none.
    QByteArray uuid() const { return m_uuid; }
    /// Whether the next number can be had without the disk.
    bool hasNumbers() const { return m_connection && m_next < m_reserved; }
    /// A number greater than every one before, none of them used twice, whatever happens to this process.
    /// 0 while the file cannot be written.
    qint64 nextSequence();
    /// The greatest number in the file, 0 when it is empty. Nothing while the file cannot be opened.
    std::optional<qint64> lastStored();

    /// Carries out a change as a whole or not at all; then the oldest messages go until the file keeps its
    /// limit. Returns how many those are, or nothing when the file cannot be written.
    std::optional<int> apply(const OutboxChange &change);
    /// Takes messages away, which may make the room that others need. Tells nothing about whether it works.
    bool remove(const QVector<SequenceRange> &ranges);
    /// Finds out whether the file can be written again.
    bool probe();
    /// Up to `count` messages of a range in their order, up to `bytes` of a publish request, but at least one
    /// where there is one. Nothing when the file cannot be read.
    std::optional<QVector<OutboxMessage>> read(SequenceRange range, int count, int bytes);

    /// Whether the last access succeeded; after a write that failed, whether one has succeeded since.
    bool works() const { return m_failure.isEmpty(); }
    /// How many bytes the file may hold.
    void setLimit(qint64 bytes) { m_limit = bytes; }

    static constexpr int keptRefused = 100; ///< messages; older ones go
    /// Statements that make an outbox, one for each entry of its schema.
    static const char *const schema[];

private:
    /// What the success of an action tells.
    enum Proof {
        ReadsAgain,
        WritesAgain,
    };

    template <typename Action>
    bool attempt(Proof proof, Action action);
    bool hasMoved() const;
    void ensureOpen();
    void open();
    void create();
    void checkSchema() const;
    void readState();
    void reserve(qint64 reserved);
    void applyInTransaction(const OutboxChange &change, int *dropped);
    void keepRefused(const QVector<RefusedMessage> &refused);
    int dropOldest();
    qint64 usedBytes() const;
    void handleFailure(Proof missing, const SqliteError &error);
    void handleSuccess(Proof proof);
    void moveAside(bool isNew);

    const QString m_path;
    std::unique_ptr<SqliteConnection> m_connection;
    QByteArray m_uuid;
    qint64 m_next = 1; // the next sequence number
    qint64 m_reserved = 1; // the file says that those below it may have been used
    qint64 m_lastStored = 0;
    qint64 m_limit = 256LL * 1024 * 1024;
    QString m_failure; // the last one, empty when the file works
    bool m_writeFailed = false; // and none has succeeded since
};
