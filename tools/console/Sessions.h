#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>

/// Who is logged in: random 128-bit ids, each good for 12 hours, with a token of their own that a change
/// needs besides. At most 64; the oldest gives way.
class Sessions
{
public:
    static constexpr int lifetimeSeconds = 12 * 3600;

    struct Session
    {
        QByteArray id;
        QByteArray token;
    };

    Sessions() { m_clock.start(); }

    Session open();
    void close(const QByteArray &id) { m_entries.remove(id); }
    void closeAll() { m_entries.clear(); }

    bool isOpen(const QByteArray &id) const;
    /// The token of an open session, empty for any other.
    QByteArray token(const QByteArray &id) const;

private:
    struct Entry
    {
        QByteArray token;
        qint64 opened = 0; ///< ms on m_clock
    };

    void makeRoom();

    QHash<QByteArray, Entry> m_entries;
    QElapsedTimer m_clock;
};
