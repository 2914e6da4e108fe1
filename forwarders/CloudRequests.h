#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>

#include <optional>

class QNetworkReply;

// How the cloud outputs talk HTTP: to the token endpoint of a service account (RFC 7523) and to the Pub/Sub
// REST interface (projects.topics.publish), over TLS 1.3 or later.

/// Whether a target names a server of its own, such as an emulator, by beginning with https:// or http://;
/// any other means the provider's own host.
bool namesEndpoint(const QString &target);
/// What keeps an output from publishing to its target, as a clause for a log line; empty when nothing does.
/// What is sent carries an access token: an endpoint is a scheme, a host and perhaps a port, and nothing
/// else, and http is for loopback hosts only (localhost, 127.0.0.0/8, ::1).
QString endpointProblem(const QString &target);
/// The same of the address that assertions are sent to, which may have a path.
QString tokenUriProblem(const QString &tokenUri);

/// Scheme, host and port of the Pub/Sub service that a target without a problem stands for.
QUrl pubSubEndpoint(const QString &target);
/// The URL that messages for a topic are posted to.
QUrl publishUrl(const QUrl &endpoint, const QString &projectId, const QString &topic);

/// Where messages go.
struct CloudDestination
{
    QString projectId;
    QString topic;
    QUrl endpoint;
};

QNetworkRequest cloudRequest(const QUrl &url, const QString &contentType);
/// A request that trades an assertion for an access token, and its body.
QNetworkRequest tokenRequest(const QString &tokenUri);
QByteArray tokenRequestBody(const QByteArray &assertion);

/// The body of an answer that has come to its end; empty when it was given up.
QByteArray answerOf(QNetworkReply *reply);
/// The access token of a token endpoint's answer; none when it holds none that can stand in a header.
std::optional<QByteArray> accessToken(const QByteArray &answer);
