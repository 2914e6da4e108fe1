#include "tools/console/LoginGuard.h"

#include <algorithm>

namespace {

const qint64 firstDelayMs = 1000;
const qint64 maximumDelayMs = 300000;
const qint64 memoryMs = 3600000;
const int maximumAddresses = 4096;

/// Whoever has an IPv6 address usually has the 64-bit network that it is in.
QString sourceOf(const QHostAddress &address)
{
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4); // also of ::ffff:1.2.3.4
    if (isIpv4)
        return QHostAddress(ipv4).toString();
    Q_IPV6ADDR network = address.toIPv6Address();
    std::fill(std::begin(network.c) + 8, std::end(network.c), quint8(0));
    return QHostAddress(network).toString();
}

} // namespace

int LoginGuard::begin(const QHostAddress &address)
{
    forgetOld();
    Failures &failures = m_failures[sourceOf(address)];
    const qint64 now = m_clock.elapsed();
    if (now < failures.nextTry)
        return int(failures.nextTry - now);
    const qint64 delay = std::min(maximumDelayMs, firstDelayMs << std::min(failures.count, 20));
    failures = {failures.count + 1, now + delay, now};
    return 0;
}

void LoginGuard::succeeded(const QHostAddress &address)
{
    m_failures.remove(sourceOf(address));
}

void LoginGuard::forgetOld()
{
    const qint64 now = m_clock.elapsed();
    for (auto entry = m_failures.begin(); entry != m_failures.end();) {
        if (now - entry->lastTry > memoryMs)
            entry = m_failures.erase(entry);
        else
            ++entry;
    }
    if (m_failures.size() < maximumAddresses)
        return;
    const auto oldest = std::min_element(m_failures.begin(), m_failures.end(),
        [](const Failures &a, const Failures &b) { return a.lastTry < b.lastTry; });
    m_failures.erase(oldest);
}
