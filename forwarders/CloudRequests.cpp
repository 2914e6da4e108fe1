#include "forwarders/CloudRequests.h"

#include <QJsonDocument>
#include <QJsonObject>
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

} // namespace

QUrl pubSubEndpoint(const QString &target)
{
    const bool isUrl =
        target.startsWith(QLatin1String("https://")) || target.startsWith(QLatin1String("http://"));
    return QUrl(isUrl ? target : publishedEndpoint);
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

std::optional<QByteArray> accessToken(const QByteArray &answer)
{
    const QJsonObject document = QJsonDocument::fromJson(answer).object();
    const auto token = document.constFind(QLatin1String("access_token"));
    if (token == document.constEnd() || !isHeaderText(token->toString()))
        return std::nullopt;
    return token->toString().toUtf8();
}
