#include "app/SystemdNotifier.h"

#include <chrono>
#include <cstdint>
#include <systemd/sd-daemon.h>

namespace {

// sd_watchdog_enabled(3) advises two. Outputs that cannot write may block one after another, 30 s each.
constexpr std::uint64_t signsInEachInterval = 4;

} // namespace

SystemdNotifier::SystemdNotifier(QObject *parent) : QObject(parent)
{
    QTimer::singleShot(0, this, [] { sd_notify(0, "READY=1"); });
    std::uint64_t watchdogInterval = 0; // microseconds
    if (sd_watchdog_enabled(0, &watchdogInterval) <= 0)
        return;
    connect(&m_watchdogTimer, &QTimer::timeout, this, [] { sd_notify(0, "WATCHDOG=1"); });
    m_watchdogTimer.start(std::chrono::milliseconds(watchdogInterval / 1000 / signsInEachInterval));
}
