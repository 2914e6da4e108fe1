#include "tools/console/Sessions.h"

#include <QRandomGenerator>

#include <algorithm>

namespace {

const int maximumSessions = 64;
const int idWords = 4;

QByteArray randomId()
{
    quint32 words[idWords];
    QRandomGenerator::system()->fillRange(words);
    return QByteArray(reinterpret_cast<const char *>(words), sizeof words).toHex();
}

} // namespace

Sessions::Session Sessions::open()
{
    makeRoom();
    Session session{randomId(), randomId()};
    m_entries.insert(session.id, {session.token, m_clock.elapsed()});
    return session;
}

bool Sessions::isOpen(const QByteArray &id) const
{
    const auto entry = m_entries.constFind(id);
    return entry != m_entries.constEnd() && m_clock.elapsed() - entry->opened < lifetimeSeconds * 1000LL;
}

QByteArray Sessions::token(const QByteArray &id) const
{
    return isOpen(id) ? m_entries.value(id).token : QByteArray();
}

void Sessions::makeRoom()
{
    for (auto entry = m_entries.begin(); entry != m_entries.end();) {
        if (isOpen(entry.key()))
            ++entry;
        else
            entry = m_entries.erase(entry);
    }
    if (m_entries.size() < maximumSessions)
        return;
    m_entries.erase(std::min_element(m_entries.begin(), m_entries.end(),
        [](const Entry &a, const Entry &b) { return a.opened < b.opened; }));
}
