#include "forwarders/StreamConnection.h"

#include "forwarders/StreamRecords.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/// Records are taken again from here on, so that one gap is told once.
constexpr int resumeBelow = StreamConnection::longestQueue / 2;

bool isTransient(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

StreamConnection::StreamConnection(QObject *parent, int descriptor)
    : QObject(parent), m_descriptor(descriptor), m_readable(descriptor, QSocketNotifier::Read),
      m_writable(descriptor, QSocketNotifier::Write)
{
    m_writable.setEnabled(false);
    connect(&m_readable, &QSocketNotifier::activated, this, &StreamConnection::readAndDrop);
    connect(&m_writable, &QSocketNotifier::activated, this, &StreamConnection::sendWaiting);
}

StreamConnection::~StreamConnection()
{
    ::close(m_descriptor);
}

void StreamConnection::send(const QByteArray &record)
{
    if (m_hasLeft)
        return;
    if (m_lost > 0 || m_waiting.size() + record.size() > longestQueue) {
        ++m_lost;
        return;
    }
    const bool isFree = m_waiting.isEmpty();
    m_waiting += record; // shares the record's memory when nothing waits
    if (isFree)
        sendWaiting();
}

void StreamConnection::sendWaiting()
{
    const ssize_t taken =
        ::send(m_descriptor, m_waiting.constData(), size_t(m_waiting.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (taken < 0 && !isTransient(errno)) {
        leave();
        return;
    }
    if (taken > 0)
        m_waiting = m_waiting.mid(int(taken)); // lets go of the memory as the queue shrinks
    if (m_lost > 0 && m_waiting.size() < resumeBelow) {
        m_waiting += StreamRecords::lost(m_lost);
        m_lost = 0;
    }
    m_writable.setEnabled(!m_waiting.isEmpty());
}

void StreamConnection::readAndDrop()
{
    char dropped[16 * 1024];
    const ssize_t size = ::recv(m_descriptor, dropped, sizeof dropped, MSG_DONTWAIT);
    if (size == 0 || (size < 0 && !isTransient(errno)))
        leave();
}

void StreamConnection::leave()
{
    if (m_hasLeft)
        return;
    m_hasLeft = true;
    m_readable.setEnabled(false);
    m_writable.setEnabled(false);
    m_waiting.clear();
    emit left();
}
