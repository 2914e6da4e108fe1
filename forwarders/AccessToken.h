#pragma once

#include "config/DataForwarderConfig.h"
#include "forwarders/CloudRequests.h"
#include "forwarders/Patience.h"
#include "forwarders/ServerClock.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <functional>

class QNetworkAccessManager;
class QNetworkReply;

/// The access token of an output's service account (RFC 7523), and where the output's row says that messages
/// go. The row is read anew for each token. A token is renewed at 90 % of its life, while it still serves.
class AccessToken : public QObject
{
    Q_OBJECT

public:
    using Row = std::function<DataForwarderConfig()>;

    /// `row` yields the output's row as it stands; `timeout` is how long the server may take at first, in ms.
    AccessToken(QNetworkAccessManager *network, ServerClock *clock, Row row, int timeout);

    /// Empty while none is held.
    QByteArray value() const;
    /// Where the row says that messages go with this token.
    QString projectId() const { return m_destination.projectId; }
    QString topic() const { return m_destination.topic; }
    QUrl endpoint() const { return m_destination.endpoint; }

    /// Asks for a token, unless a request is under way. Ends with one of the signals, perhaps at once.
    void request();
    /// Forgets the token: the server does not take it any more, or the row may have been mended.
    void drop() { m_value.clear(); }

signals:
    void obtained();
    /// `retryAfter` is how long the server wants to be left alone, in ms.
    void failed(const QString &reason, qint64 retryAfter);

private:
    void post(const QString &tokenUri, const QByteArray &assertion);
    void finish(QNetworkReply *reply);
    bool take(const QByteArray &answer);
    void fail(const QString &reason, qint64 retryAfter);

    QNetworkAccessManager *const m_network;
    ServerClock *const m_clock;
    const Row m_row;
    Patience m_patience;
    CloudDestination m_destination;
    CloudDestination m_requested; // what counts when the token is there: no token goes where another row says
    QByteArray m_value;
    qint64 m_lifetime = 0; // ms
    qint64 m_signedAt = 0; // s since 1970 UTC
    bool m_requesting = false;
    bool m_signedAgain = false; // since an answer told that the clock is off
    QElapsedTimer m_age;
    QTimer m_renewal;
};
