#include "forwarders/ServerClock.h"

#include <QDateTime>
#include <QDebug>
#include <QLocale>

namespace {

constexpr qint64 tolerance = 300; // s
constexpr qint64 longestRest = 3600; // s

/// IMF-fixdate, the one form that servers still write; 0 for anything else.
qint64 parsedDate(const QByteArray &header)
{
    QDateTime date = QLocale::c().toDateTime(
        QString::fromLatin1(header), QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"));
    date.setTimeSpec(Qt::UTC);
    return date.isValid() ? date.toSecsSinceEpoch() : 0;
}

} // namespace

void ServerClock::note(const QByteArray &dateHeader)
{
    const qint64 date = parsedDate(dateHeader);
    if (date <= 0)
        return;
    m_serverTime = date;
    m_since.start();
    const qint64 own = QDateTime::currentSecsSinceEpoch();
    const bool differs = qAbs(date - own) > tolerance;
    if (differs && !m_differs)
        qInfo() << "The clock of this machine is" << qAbs(own - date) << "s"
                << (own > date ? "ahead of" : "behind") << "the server's, which is used to sign";
    m_differs = differs;
}

qint64 ServerClock::secondsSinceEpoch() const
{
    const qint64 own = QDateTime::currentSecsSinceEpoch();
    if (m_serverTime == 0)
        return own;
    const qint64 server = m_serverTime + m_since.elapsed() / 1000;
    return qAbs(server - own) > tolerance ? server : own;
}

bool ServerClock::isFarOff(qint64 secondsSinceEpoch) const
{
    return qAbs(this->secondsSinceEpoch() - secondsSinceEpoch) > tolerance;
}

qint64 ServerClock::retryAfter(const QByteArray &header) const
{
    bool isNumber = false;
    qint64 seconds = header.trimmed().toLongLong(&isNumber);
    if (!isNumber) {
        const qint64 date = parsedDate(header);
        seconds = date > 0 ? date - secondsSinceEpoch() : 0;
    }
    return qBound<qint64>(0, seconds, longestRest) * 1000;
}
