#include "app/TerminationSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <csignal>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

// A signal handler may do next to nothing: it writes here, and the event loop reads.
int eventDescriptor = -1;

void wakeEventLoop(int)
{
    const int savedErrno = errno;
    const quint64 one = 1;
    [[maybe_unused]] const ssize_t written = ::write(eventDescriptor, &one, sizeof one);
    errno = savedErrno;
}

/// As nohup(1) wants it.
bool isHangupIgnored()
{
    struct sigaction action = {};
    return ::sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void handleTerminationWith(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (const int signal : std::array{SIGTERM, SIGINT})
        ::sigaction(signal, &action, nullptr);
    if (!isHangupIgnored())
        ::sigaction(SIGHUP, &action, nullptr);
}

} // namespace

TerminationSignals::TerminationSignals(QObject *parent) : QObject(parent)
{
    eventDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    auto *notifier = new QSocketNotifier(eventDescriptor, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &TerminationSignals::handleSignal);
    handleTerminationWith(wakeEventLoop);
}

TerminationSignals::~TerminationSignals()
{
    handleTerminationWith(SIG_IGN); // the process is about to end; a second signal must not change its code
    ::close(eventDescriptor);
    eventDescriptor = -1;
}

void TerminationSignals::handleSignal()
{
    quint64 count = 0;
    [[maybe_unused]] const ssize_t read = ::read(eventDescriptor, &count, sizeof count);
    QCoreApplication::exit(0);
}

// In an object of its own: all of the core would come with the others.
#include "moc_TerminationSignals.cpp" // NOLINT(bugprone-suspicious-include)
