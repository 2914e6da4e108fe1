#include "tools/console/Access.h"

#include <QDateTime>
#include <QFileInfo>
#include <QUrl>

namespace {

const QByteArray cookieAttributes = "; HttpOnly; SameSite=Strict; Path=/";

bool namesThisMachine(const QByteArray &host)
{
    const QString name = QUrl(QStringLiteral("http://") + QString::fromLatin1(host)).host();
    return name == QLatin1String("localhost") || QHostAddress(name).isLoopback();
}

} // namespace

Access::Access(const QString &configFile, Settings settings)
    : m_passwordFile(configFile), m_settings(settings)
{
    followPassword();
}

Reply Access::refusal(const Request &request) const
{
    if (!hasPassword() && !m_settings.loopbackOnly)
        return Reply::error(
            503, QStringLiteral("the console has no password any more: quillonctl console password"));
    if (!hasPassword() && !namesThisMachine(request.headers.value("host")))
        return Reply::error(
            421, QStringLiteral("without a password the console answers to this machine's own names only"));
    if (!hasPassword() && request.method == "POST")
        return Reply::error(401,
            QStringLiteral(
                "nobody may change anything before a password is set: quillonctl console password"));
    // Another site's form can send no JSON without being asked by the browser first.
    if (request.method == "POST" && !request.headers.value("content-type").startsWith("application/json"))
        return Reply::error(415, QStringLiteral("the body has to be application/json"));
    return {0, {}, {}, {}};
}

bool Access::followPassword()
{
    const QFileInfo file(m_passwordFile.path());
    const QDateTime stamp = file.exists() ? file.lastModified() : QDateTime();
    if (stamp == m_passwordStamp)
        return false;
    m_passwordStamp = stamp;
    m_sessions.closeAll();
    return true;
}

bool Access::mayLook(const QByteArray &sessionId) const
{
    return hasPassword() ? m_sessions.isOpen(sessionId) : m_settings.loopbackOnly;
}

bool Access::mayChange(const Request &request) const
{
    const QByteArray token = m_sessions.token(sessionId(request));
    return hasPassword() && !token.isEmpty() && sameSecret(token, request.headers.value("x-session-token"));
}

QByteArray Access::openSession(const Request &request, QByteArray &token)
{
    const Sessions::Session session = m_sessions.open();
    token = session.token;
    return "quillon_session=" + session.id + "; Max-Age=" + QByteArray::number(Sessions::lifetimeSeconds)
        + cookieAttributes + (isEncrypted(request) ? "; Secure" : "");
}

QByteArray Access::closeSession(const Request &request)
{
    m_sessions.close(sessionId(request));
    return "quillon_session=; Max-Age=0" + cookieAttributes + (isEncrypted(request) ? "; Secure" : "");
}

QHostAddress Access::source(const Request &request) const
{
    if (!m_settings.behindProxy || !request.client.isLoopback())
        return request.client;
    // The proxy adds the address that it sees at the end; what stands before may be anybody's invention.
    const QByteArray last = request.headers.value("x-forwarded-for").split(',').last().trimmed();
    const QHostAddress named(QString::fromLatin1(last));
    return named.isNull() ? request.client : named;
}

bool Access::isEncrypted(const Request &request) const
{
    const bool byProxy = m_settings.behindProxy && request.client.isLoopback()
        && request.headers.value("x-forwarded-proto") == "https";
    return request.encrypted || byProxy;
}
