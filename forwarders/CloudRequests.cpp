#include "forwarders/CloudRequests.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QSslConfiguration>

#include <algorithm>

namespace {

const QString publishedEndpoint = QStringLiteral("https://pubsub.googleapis.com");
const QString publishPath = QStringLiteral("/v1/projects/%1/topics/%2:publish");

/// Whether a token can stand in a header: anything else would let its server write requests of its own.
bool isHeaderText(const QString &text)
{
    return std::all_of(
        text.cbegin(), text.cend(), [](QChar c) { return c > QLatin1Char(' ') && c < QChar(0x7f); });
}

/// Whether what is sent there can be read by its receiver only: over TLS, or within this machine.
bool isPrivate(const QUrl &url)
{
    const QString host = url.host();
    return url.scheme() == QLatin1String("https")
        || (url.scheme() == QLatin1String("http")
            && (host == QLatin1String("localhost") || QHostAddress(host).isLoopback()));
}

} // namespace

bool namesEndpoint(const QString &target)
{
    return target.startsWith(QLatin1String("https://"), Qt::CaseInsensitive)
        || target.startsWith(QLatin1String("http://"), Qt::CaseInsensitive);
}

QString endpointProblem(const QString &target)
{
    if (!namesEndpoint(target))
        return {};
    const QUrl url(target, QUrl::StrictMode);
    const bool hasPath = !url.path().isEmpty() && url.path() != QLatin1String("/");
    if (url.host().isEmpty() || url.port(1) == 0 || hasPath || url.hasQuery() || url.hasFragment()
        || !url.userInfo().isEmpty())
        return QStringLiteral("an endpoint is https://HOST or https://HOST:PORT, and nothing else");
    if (!isPrivate(url))
        return QStringLiteral("an endpoint on another machine begins with https://");
    return {};
}

QString tokenUriProblem(const QString &tokenUri)
{
    const QUrl url(tokenUri);
    if (url.host().isEmpty() || !isPrivate(url))
        return QStringLiteral("the token_uri is no https address");
    return {};
}

QUrl pubSubEndpoint(const QString &target)
{
    return QUrl(namesEndpoint(target) ? target : publishedEndpoint);
}

QUrl publishUrl(const QUrl &endpoint, const QString &projectId, const QString &topic)
{
    QUrl url = endpoint;
    url.setPath(publishPath.arg(projectId, topic));
    return url;
}

QNetworkRequest cloudRequest(const QUrl &url, const QString &contentType)
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setProtocol(QSsl::TlsV1_3OrLater);
    request.setSslConfiguration(tls);
    return request;
}

QNetworkRequest tokenRequest(const QString &tokenUri)
{
    return cloudRequest(QUrl(tokenUri), QStringLiteral("application/x-www-form-urlencoded"));
}

QByteArray tokenRequestBody(const QByteArray &assertion)
{
    return "grant_type=urn:ietf:params:oauth:grant-type:jwt-bearer&assertion=" + assertion;
}

QByteArray answerOf(QNetworkReply *reply)
{
    return reply->isOpen() ? reply->readAll() : QByteArray();
}

std::optional<QByteArray> accessToken(const QByteArray &answer)
{
    const QJsonObject document = QJsonDocument::fromJson(answer).object();
    const auto token = document.constFind(QLatin1String("access_token"));
    if (token == document.constEnd() || !isHeaderText(token->toString()))
        return std::nullopt;
    return token->toString().toUtf8();
}
