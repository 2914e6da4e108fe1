#include "forwarders/StreamSocket.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int backlog = 64; // clients that wait to be accepted
constexpr int idleBeforeProbe = 60; // s

/// Closes a descriptor that is of no use any more; errno stays what it is.
int closed(int descriptor)
{
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return -1;
}

/// Binds or connects a new Unix socket to a path.
template <typename Step>
int openPath(const QString &path, Step step)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address = {};
    if (name.size() > StreamSocket::longestPath()) {
        errno = ENAMETOOLONG;
        return -1;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.constData(), size_t(name.size()));
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor == -1)
        return -1;
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    return step(descriptor, generic, sizeof address) == 0 ? descriptor : closed(descriptor);
}

/// Binds or connects a new TCP socket to the first address of a host that allows it.
template <typename Step>
int openTcp(const QString &host, quint16 port, int flags, Step step)
{
    addrinfo hints = {};
    hints.ai_flags = flags | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (::getaddrinfo(host.toUtf8().constData(), QByteArray::number(port).constData(), &hints, &found) != 0) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    int result = -1;
    for (const addrinfo *each = found; each && result == -1; each = each->ai_next) {
        result = ::socket(each->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1; // so that a restart need not wait for the connections of before to time out
        ::setsockopt(result, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (result != -1 && step(result, each->ai_addr, each->ai_addrlen) != 0)
            result = closed(result);
    }
    ::freeaddrinfo(found);
    return result;
}

/// A vanished peer is found out within minutes, and small records are not held back.
void prepareTcp(int descriptor)
{
    const int on = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, &idleBeforeProbe, sizeof idleBeforeProbe);
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/// Whether nothing is in the way at the path; removes a socket that nobody listens on.
bool isVacant(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status = {};
    if (::lstat(name.constData(), &status) != 0)
        return errno == ENOENT;
    const int probe = StreamSocket::connectToPath(path);
    if (probe == -1 && errno == ECONNREFUSED && S_ISSOCK(status.st_mode))
        return ::unlink(name.constData()) == 0;
    if (probe != -1)
        ::close(probe);
    errno = EADDRINUSE;
    return false;
}

int bindToPath(const QString &path)
{
    if (!isVacant(path))
        return -1;
    const mode_t mask = ::umask(0117); // the file has its mode from the first moment on
    const int descriptor = openPath(path, ::bind);
    ::umask(mask);
    return descriptor == -1 || ::listen(descriptor, backlog) == 0 ? descriptor : closed(descriptor);
}

} // namespace

int StreamSocket::listenOnPath(const QString &path)
{
    // Two daemons that found the same stale file would each replace the other's socket.
    const QByteArray folder = QFile::encodeName(QFileInfo(path).path());
    const int lock = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lock == -1)
        return -1;
    const int descriptor = ::flock(lock, LOCK_EX | LOCK_NB) == 0 ? bindToPath(path) : -1;
    closed(lock);
    return descriptor;
}

int StreamSocket::listenOnAddress(const QString &address, quint16 port)
{
    const int descriptor = openTcp(address, port, AI_NUMERICHOST | AI_PASSIVE, ::bind);
    if (descriptor == -1)
        return -1;
    ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
    return ::listen(descriptor, backlog) == 0 ? descriptor : closed(descriptor);
}

int StreamSocket::acceptClient(int listener)
{
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor != -1)
        prepareTcp(descriptor); // means nothing to a Unix socket
    return descriptor;
}

int StreamSocket::connectToPath(const QString &path)
{
    return openPath(path, ::connect);
}

int StreamSocket::connectToHost(const QString &host, quint16 port)
{
    const int descriptor = openTcp(host, port, 0, ::connect);
    if (descriptor != -1)
        prepareTcp(descriptor);
    return descriptor;
}

int StreamSocket::longestPath()
{
    return int(sizeof sockaddr_un().sun_path) - 1;
}
