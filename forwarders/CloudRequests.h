#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>

#include <optional>

// How the cloud outputs talk HTTP: to the token endpoint of a service account (RFC 7523) and to the Pub/Sub
// REST interface (projects.topics.publish), over TLS 1.3 or later.

/// Scheme, host and port of the Pub/Sub service: a target that is a URL names it, for tests and emulators;
/// any other means the provider's own host.
QUrl pubSubEndpoint(const QString &target);
/// The URL that messages for a topic are posted to.
QUrl publishUrl(const QUrl &endpoint, const QString &projectId, const QString &topic);

QNetworkRequest cloudRequest(const QUrl &url, const QString &contentType);
/// A request that trades an assertion for an access token, and its body.
QNetworkRequest tokenRequest(const QString &tokenUri);
QByteArray tokenRequestBody(const QByteArray &assertion);

/// The access token of a token endpoint's answer; none when it holds none that can stand in a header.
std::optional<QByteArray> accessToken(const QByteArray &answer);
