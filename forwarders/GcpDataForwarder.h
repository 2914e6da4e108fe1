#pragma once

#include "forwarders/CloudMessage.h"
#include "forwarders/CloudRequests.h"
#include "forwarders/DataForwarder.h"
#include "forwarders/PublishQueue.h"

#include <QHash>
#include <QList>
#include <QNetworkAccessManager>

class QNetworkReply;

/// The "GCP" output: every frame and command as one message of a Google Cloud Pub/Sub topic, published over
/// its REST interface (projects.topics.publish) with the access token of a service account. What comes while
/// no token is held is kept in memory and published after the next live message that is accepted.
class GcpDataForwarder : public DataForwarder
{
    Q_OBJECT

public:
    /// Requests that get no answer are given up after `patience` ms.
    GcpDataForwarder(QObject *parent, int id, int patience = 120000);
    ~GcpDataForwarder() override;

public slots:
    void forward(QSharedPointer<IcomCommandResponse> resp) override;
    void forwardSent(QSharedPointer<IcomCommand> command) override;

private slots:
    void forwardStoredMessages();
    void replyFinished(QNetworkReply *reply);
    void reconnect();
    void abortReconnect();

private:
    enum TokenState {
        NoToken = 0,
        Ready = 1,
        RequestFailed = 2,
    };

    bool isRefused(const QString &problem);
    void requestToken(
        const QString &tokenUri, const QByteArray &assertion, const CloudDestination &destination);
    void takeToken(const QByteArray &answer, const CloudDestination &destination);
    static void logRefusal(int code, const QString &reason);
    void loseToken();
    void publishOrPostpone(const CloudMessage &message, QList<CloudMessage> *postponed);
    void publish(CloudMessage message);
    QNetworkReply *post(const CloudMessage &message);

    CloudDestination m_destination;
    QHash<const QNetworkReply *, CloudDestination> m_requested; // where each token under way is good for
    QString m_refusal; // the one that was logged last
    QByteArray m_bearerToken;
    bool m_reconnecting = false;
    const int m_tokenLifetime = 1800; // s
    const int m_patience;
    QScopedPointer<QNetworkAccessManager> m_networkManager;
    PublishQueue m_publishQueue; // nothing waits in it while no token is held
    TokenState m_tokenState = NoToken;
    QList<CloudMessage> m_postponedFrames;
    QList<CloudMessage> m_postponedCommands;
};
