#include "forwarders/PubSubQueue.h"

#include <QDebug>

#include <algorithm>
#include <limits>

namespace {

constexpr int mostInMemory = 2000; // messages

// All in ms.
constexpr qint64 longestUnwritten = 500;
constexpr qint64 timerMargin = 30;
constexpr qint64 shortestWait = 200; // however slow the disk is
constexpr qint64 removalDelay = 400; // one commit for what is accepted meanwhile
constexpr qint64 diskRetryDelay = 1000;
constexpr qint64 logInterval = 60000;

constexpr qint64 lastSequence = std::numeric_limits<qint64>::max();

} // namespace

PubSubQueue::PubSubQueue(const QString &outboxPath) : m_outbox(outboxPath)
{
    m_clock.start();
}

PubSubQueue::~PubSubQueue()
{
    writeAll();
    if (!m_fresh.isEmpty())
        qInfo() << m_fresh.size() << "messages could not be written to the outbox and are lost";
}

void PubSubQueue::add(const QByteArray &json)
{
    write(); // frames that have piled up in a stall come before the timer
    if (m_fresh.size() >= mostInMemory) {
        m_fresh.dequeue();
        ++m_change.dropped;
        countDropped(1);
    }
    // Numbers are given in the order of hearing: none while an earlier message lacks one.
    const bool numbered = m_fresh.isEmpty() || m_fresh.last().message.sequence != 0;
    const bool mayAsk = m_outbox.hasNumbers() || m_clock.elapsed() >= m_retryAt;
    const qint64 sequence = numbered && mayAsk ? m_outbox.nextSequence() : 0;
    if (sequence == 0 && numbered && mayAsk)
        m_retryAt = m_clock.elapsed() + diskRetryDelay;
    m_fresh.enqueue({{sequence, json}, m_clock.elapsed()});
}

void PubSubQueue::numberMessages()
{
    for (FreshMessage &each : m_fresh) {
        if (each.message.sequence == 0)
            each.message.sequence = m_outbox.nextSequence();
        if (each.message.sequence == 0)
            return;
    }
}

std::optional<QVector<OutboxMessage>> PubSubQueue::take(int count, int bytes)
{
    const SequenceRange untaken{m_taken + 1, lastSequence};
    auto result = takeAgain(untaken, count, bytes);
    if (result && !result->isEmpty())
        m_taken = result->last().sequence;
    return result;
}

std::optional<QVector<OutboxMessage>> PubSubQueue::takeAgain(SequenceRange range, int count, int bytes)
{
    const std::optional<qint64> lastStored = m_outbox.lastStored();
    if (lastStored && range.first <= *lastStored) {
        auto stored = m_outbox.read(range, count, bytes);
        if (!stored || !stored->isEmpty())
            return stored;
    }
    auto result = fresh(range, count, bytes);
    if (!lastStored && result.isEmpty())
        return {}; // who knows what the file holds
    return result;
}

QVector<OutboxMessage> PubSubQueue::fresh(SequenceRange range, int count, int bytes) const
{
    QVector<OutboxMessage> result;
    int size = 0;
    for (const FreshMessage &each : m_fresh) {
        const qint64 sequence = each.message.sequence;
        if (sequence == 0 || sequence > range.last || result.size() == count)
            break;
        if (sequence < range.first)
            continue;
        size += each.message.requestBytes();
        if (size > bytes && !result.isEmpty())
            break;
        result.append(each.message);
    }
    return result;
}

void PubSubQueue::accept(SequenceRange range)
{
    const auto isAccepted = [&](const FreshMessage &each) {
        return each.message.sequence >= range.first && each.message.sequence <= range.last;
    };
    m_fresh.erase(std::remove_if(m_fresh.begin(), m_fresh.end(), isAccepted), m_fresh.end());
    m_late = range.first <= m_outbox.lastStored().value_or(0);
    if (!m_late)
        return;
    if (m_change.isEmpty())
        m_changed = m_clock.elapsed();
    m_change.removed.append(range);
}

void PubSubQueue::refuse(const RefusedMessage &refused)
{
    const qint64 sequence = refused.message.sequence;
    const auto isRefused = [&](const FreshMessage &each) { return each.message.sequence == sequence; };
    m_fresh.erase(std::remove_if(m_fresh.begin(), m_fresh.end(), isRefused), m_fresh.end());
    if (m_change.isEmpty())
        m_changed = m_clock.elapsed();
    m_change.refused.append(refused);
    if (m_change.refused.size() > Outbox::keptRefused)
        m_change.refused.removeFirst(); // on a disk that fails; it comes again after a restart
}

/// How old a message becomes before its commit begins, so that it ends in time on a disk as slow as this one.
qint64 PubSubQueue::writeAge() const
{
    return qMax(shortestWait, longestUnwritten - timerMargin - 2 * m_commitTime);
}

int PubSubQueue::nextWrite() const
{
    qint64 due = lastSequence;
    if (!m_fresh.isEmpty())
        due = m_fresh.size() < mostInMemory ? m_fresh.first().heard + writeAge() : 0;
    if (!m_change.isEmpty())
        due = qMin(due, m_changed + removalDelay);
    if (!diskWorks())
        due = 0;
    if (due == lastSequence)
        return -1;
    return int(qMax<qint64>(0, qMax(due, m_retryAt) - m_clock.elapsed()));
}

void PubSubQueue::write()
{
    if (nextWrite() != 0)
        return;
    numberMessages();
    // While the server is slow, the others would come to the disk anyway, in a commit of their own.
    const bool writesAll = m_late || !diskWorks() || m_fresh.size() >= mostInMemory;
    const int count = writable(writesAll ? m_clock.elapsed() : m_clock.elapsed() - writeAge());
    const bool unnumbered = count < m_fresh.size() && m_fresh.at(count).message.sequence == 0;
    if (!commit(count) || unnumbered)
        m_retryAt = m_clock.elapsed() + diskRetryDelay;
    else if (count > 0)
        m_late = true;
}

void PubSubQueue::writeAll()
{
    numberMessages();
    const int count = writable(m_clock.elapsed());
    if ((count > 0 || !m_change.isEmpty()) && !commit(count))
        m_retryAt = m_clock.elapsed() + diskRetryDelay;
}

/// How many messages of those heard up to a time, in ms on m_clock, have the number that the disk asks for.
int PubSubQueue::writable(qint64 heardUntil) const
{
    const auto end = std::find_if(m_fresh.begin(), m_fresh.end(),
        [&](const FreshMessage &each) { return each.message.sequence == 0 || each.heard > heardUntil; });
    return int(std::distance(m_fresh.begin(), end));
}

/// Writes the oldest messages in memory, and what else is to be done.
bool PubSubQueue::commit(int count)
{
    const qint64 start = m_clock.elapsed();
    if (!diskWorks() && !m_change.removed.isEmpty() && m_outbox.remove(m_change.removed))
        m_change.removed.clear(); // this by itself may make the room that the rest needs
    for (int i = 0; i < count; ++i)
        m_change.added.append(m_fresh.at(i).message);
    if (m_change.isEmpty())
        return diskWorks() || m_outbox.probe();
    const auto dropped = m_outbox.apply(m_change);
    m_change.added.clear();
    if (!dropped)
        return false;
    m_change = {};
    m_fresh.erase(m_fresh.begin(), m_fresh.begin() + count);
    countDropped(*dropped);
    m_commitTime = m_clock.elapsed() - start;
    return true;
}

void PubSubQueue::countDropped(qint64 dropped)
{
    m_droppedUnlogged += dropped;
    const bool isDue = m_droppedLogged < 0 || m_clock.elapsed() - m_droppedLogged >= logInterval;
    if (m_droppedUnlogged == 0 || !isDue)
        return;
    qInfo() << "The outbox is full :" << m_droppedUnlogged << "of the oldest messages were dropped";
    m_droppedUnlogged = 0;
    m_droppedLogged = m_clock.elapsed();
}
