#include "tools/quillonctl/StreamReader.h"

#include "forwarders/StreamSocket.h"
#include "tools/quillonctl/CommandError.h"

#include <QDebug>

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int pauseBetweenAttempts = 1000; // ms
constexpr int longestLine = 4 * 1024 * 1024; // bytes

/// Waits for something to read, for at most `timeoutMs`, -1 for ever; false when standard output has lost its
/// reader.
bool waitFor(int descriptor, int timeoutMs)
{
    pollfd watched[] = {{descriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    ::poll(watched, 2, timeoutMs);
    return (watched[1].revents & (POLLERR | POLLHUP)) == 0;
}

} // namespace

StreamReader::~StreamReader()
{
    if (m_descriptor != -1)
        ::close(m_descriptor);
}

bool StreamReader::readLine(QByteArray *line)
{
    int end = m_buffer.indexOf('\n', m_searched);
    while (end == -1) {
        m_searched = m_buffer.size();
        if (m_descriptor == -1)
            join();
        if (!waitFor(m_descriptor, m_descriptor == -1 ? pauseBetweenAttempts : -1))
            return false;
        if (m_descriptor != -1)
            readMore();
        end = m_buffer.indexOf('\n', m_searched);
    }
    *line = m_buffer.left(end);
    m_buffer.remove(0, end + 1);
    m_searched = 0;
    return true;
}

void StreamReader::join()
{
    m_descriptor = m_target.path.isEmpty()
        ? StreamSocket::connectToHost(m_target.server.host, quint16(m_target.server.port))
        : StreamSocket::connectToPath(m_target.path);
    if (m_descriptor == -1)
        handleFailure(errno);
}

void StreamReader::handleFailure(int error)
{
    const QString reason = qt_error_string(error);
    // Later it may be the moment in which the folder is made anew.
    if (error == EACCES && !m_wasJoined)
        throw CommandError(
            QStringLiteral("%1 cannot be joined: %2 (members of its group may: usually quillon)")
                .arg(m_target.text(), reason));
    say(QStringLiteral("%1: %2; waiting for the daemon").arg(m_target.text(), reason));
}

void StreamReader::readMore()
{
    char part[64 * 1024];
    const ssize_t size = ::recv(m_descriptor, part, sizeof part, MSG_DONTWAIT);
    if (size == 0) {
        leave(QStringLiteral("%1: the stream has ended; waiting to join again").arg(m_target.text()));
    } else if (size > 0) {
        m_buffer.append(part, int(size));
        m_wasJoined = true;
        if (!m_said.isEmpty())
            say(QStringLiteral("%1: joined").arg(m_target.text()));
        m_said.clear();
    } else if (errno != EAGAIN && errno != EINTR) {
        leave(QStringLiteral("%1: %2; waiting to join again").arg(m_target.text(), qt_error_string(errno)));
    }
    if (m_buffer.size() > longestLine)
        throw CommandError(QStringLiteral("%1 is no stream of records").arg(m_target.text()));
}

void StreamReader::leave(const QString &reason)
{
    ::close(m_descriptor);
    m_descriptor = -1;
    m_buffer.clear(); // the beginning of a record
    m_searched = 0;
    say(reason);
}

void StreamReader::say(const QString &text)
{
    if (text != m_said)
        qWarning().noquote() << text;
    m_said = text;
}
