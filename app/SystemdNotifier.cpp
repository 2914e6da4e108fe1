#include "app/SystemdNotifier.h"

#include "forwarders/LongWait.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace {

// sd_watchdog_enabled(3) advises two. An output that cannot write may block for 30 s, and others after it.
constexpr std::uint64_t signsInEachInterval = 4;
constexpr int retryDelay = 1000; // ms

/// What sd_notify(3) sends; that one waits for ever, and the daemon with it, while nobody reads the socket.
/// False when there is no room for it now.
bool notify(const QByteArray &state)
{
    const QByteArray path = qgetenv("NOTIFY_SOCKET");
    sockaddr_un address = {AF_UNIX, {}};
    if (path.isEmpty() || path.size() > int(sizeof address.sun_path))
        return true;
    std::memcpy(address.sun_path, path.constData(), std::size_t(path.size()));
    if (path.startsWith('@')) // an abstract name, see unix(7)
        address.sun_path[0] = '\0';
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto length = socklen_t(offsetof(sockaddr_un, sun_path) + std::size_t(path.size()));
    const bool isFull = ::sendto(descriptor, state.constData(), std::size_t(state.size()), MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr *>(&address), length)
            < 0
        && errno == EAGAIN;
    ::close(descriptor);
    return !isFull;
}

} // namespace

SystemdNotifier::SystemdNotifier(QObject *parent) : QObject(parent)
{
    QTimer::singleShot(0, this, &SystemdNotifier::tellReady);
    std::uint64_t watchdogInterval = 0; // microseconds
    if (sd_watchdog_enabled(0, &watchdogInterval) <= 0)
        return;
    const auto tellAlive = [] { notify("WATCHDOG=1"); };
    connect(&m_watchdogTimer, &QTimer::timeout, this, tellAlive);
    connect(LongWait::getInstance(), &LongWait::begins, this, tellAlive);
    const auto period = std::chrono::milliseconds(watchdogInterval / 1000 / signsInEachInterval);
    m_watchdogTimer.start(qMax(period, std::chrono::milliseconds(1)));
}

void SystemdNotifier::tellReady() const
{
    if (!notify("READY=1"))
        QTimer::singleShot(retryDelay, this, &SystemdNotifier::tellReady);
}
