#pragma once

#include "forwarders/Outbox.h"

#include <QElapsedTimer>
#include <QQueue>

/// What an output still has to bring to the cloud, oldest first: the youngest messages in memory, the others
/// in its outbox. A message that is accepted soon never comes to the disk; any other is there half a second
/// after it was heard.
class PubSubQueue
{
public:
    explicit PubSubQueue(const QString &outboxPath);
    /// Writes everything that is in memory to the disk.
    ~PubSubQueue();
    Q_DISABLE_COPY(PubSubQueue)

    QByteArray uuid() const { return m_outbox.uuid(); }
    /// Whether the disk takes what it is given.
    bool diskWorks() const { return m_outbox.works(); }
    /// How many bytes the outbox may hold on the disk.
    void setLimit(qint64 bytes) { m_outbox.setLimit(bytes); }

    /// Appends a message that was heard just now.
    void add(const QByteArray &json);

    /// The oldest messages that were not taken yet: up to `count` of them, up to `bytes` of a publish request
    /// or just one. Nothing when the disk cannot be read.
    std::optional<QVector<OutboxMessage>> take(int count, int bytes);
    /// Messages that were taken before, as far as they are still there.
    std::optional<QVector<OutboxMessage>> takeAgain(SequenceRange range, int count, int bytes);
    /// The server has these.
    void accept(SequenceRange range);
    /// The server will never take this one.
    void refuse(const RefusedMessage &refused);

    /// Writes what is due to the disk.
    void write();
    /// Writes everything that is in memory to the disk.
    void writeAll();
    /// When write() is to be called next, in ms from now; -1 when there is nothing to be written.
    int nextWrite() const;

private:
    struct FreshMessage
    {
        OutboxMessage message; // its number is 0 while the outbox yields none
        qint64 heard; // ms on m_clock
    };

    qint64 writeAge() const;
    void numberMessages();
    QVector<OutboxMessage> fresh(SequenceRange range, int count, int bytes) const;
    int writable(qint64 heardUntil) const;
    bool commit(int count);
    void countDropped(qint64 dropped);

    Outbox m_outbox;
    QQueue<FreshMessage> m_fresh; // not on the disk
    OutboxChange m_change; // to go with the next commit
    qint64 m_taken = 0; // those up to this number were taken once
    bool m_late = false; // the server takes so long that messages come to the disk
    QElapsedTimer m_clock;
    qint64 m_changed = 0; // when m_change got its first entry, ms on m_clock
    qint64 m_commitTime = 0; // what the last commit took, ms
    qint64 m_retryAt = 0; // not before, after a failed one; ms on m_clock
    qint64 m_droppedUnlogged = 0;
    qint64 m_droppedLogged = -1; // when the last such line was written, ms on m_clock; -1 never
};
