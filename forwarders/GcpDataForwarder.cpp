#include "forwarders/GcpDataForwarder.h"

#include "forwarders/CloudRequests.h"
#include "forwarders/ServiceAccount.h"

#include <QDateTime>
#include <QDebug>
#include <QNetworkReply>
#include <QTimer>

namespace {

// All in ms.
constexpr int firstRequestDelay = 1000;
constexpr int requestPeriod = 10000;
constexpr int retryDelay = 5000;
constexpr int flushDelay = 1000;
constexpr int publishTimeout = 120000; // with time for a long list of postponed messages

constexpr int longestAnswer = 1024 * 1024; // bytes

} // namespace

GcpDataForwarder::GcpDataForwarder(QObject *parent, int id)
    : DataForwarder(parent, id), m_networkManager(new QNetworkAccessManager)
{
    setStatus(DataForwarderConfig::Idle);
    connect(
        m_networkManager.data(), &QNetworkAccessManager::finished, this, &GcpDataForwarder::replyFinished);
    QTimer::singleShot(firstRequestDelay, this, &GcpDataForwarder::reconnect);
}

GcpDataForwarder::~GcpDataForwarder()
{
    m_networkManager->disconnect(this); // replies that end with the manager are nobody's any more
}

void GcpDataForwarder::reconnect()
{
    // Every postponed message asks for a token; one that is held is not renewed ahead of its expiry.
    if (m_reconnecting || m_tokenState == Ready)
        return;
    m_reconnecting = true;
    QTimer::singleShot(requestPeriod, this, &GcpDataForwarder::abortReconnect);
    m_tokenState = NoToken;
    m_bearerToken.clear();

    const DataForwarderConfig config = configuration();
    const ServiceAccount account(config.secret);
    m_topic = config.context;
    m_endpoint = pubSubEndpoint(config.target);
    m_projectId = account.projectId();
    if (isRefused(endpointProblem(config.target)))
        return;
    const QByteArray assertion = account.signedAssertion(QDateTime::currentSecsSinceEpoch(), m_tokenLifetime);
    if (assertion.isEmpty()) {
        qInfo() << "Unable to parse private key - check GCP secret in configuration";
        return;
    }
    if (!isRefused(tokenUriProblem(account.tokenUri())))
        requestToken(account.tokenUri(), assertion);
}

/// Logs the problem of an address once, however often a token is wanted.
bool GcpDataForwarder::isRefused(const QString &problem)
{
    if (!problem.isEmpty() && problem != m_refusal)
        qInfo() << "forwarder id=" << id() << " nothing is sent :" << qPrintable(problem);
    m_refusal = problem;
    return !problem.isEmpty();
}

void GcpDataForwarder::abortReconnect()
{
    m_reconnecting = false;
}

void GcpDataForwarder::requestToken(const QString &tokenUri, const QByteArray &assertion)
{
    QNetworkReply *reply = m_networkManager->post(tokenRequest(tokenUri), tokenRequestBody(assertion));
    // A server that does not come to an end, in time or in bytes, counts as one that cannot be reached.
    QTimer::singleShot(requestPeriod, reply, &QNetworkReply::abort);
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received) {
        if (received > longestAnswer)
            reply->abort();
    });
}

void GcpDataForwarder::replyFinished(QNetworkReply *reply)
{
    reply->deleteLater();
    const int code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (code != 200) {
        handleRefusal(code, reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString());
        return;
    }
    if (m_tokenState != Ready) {
        takeToken(reply->readAll());
        return;
    }
    m_reconnecting = false;
    setStatus(DataForwarderConfig::Working);
    QTimer::singleShot(flushDelay, this, &GcpDataForwarder::forwardStoredMessages);
}

void GcpDataForwarder::takeToken(const QByteArray &answer)
{
    const auto token = accessToken(answer);
    if (!token) {
        qInfo() << "GcpDataForwarder : the answer holds no access token.";
        return;
    }
    m_bearerToken = *token;
    m_tokenState = Ready;
}

void GcpDataForwarder::handleRefusal(int code, const QString &reason)
{
    if (code == 401 || code == 403)
        qInfo() << "GcpDataForwarder : invalid credentials.";
    else
        qInfo() << "GcpDataForwarder : Unhandled HTTP response : code=" << code << " reason=" << reason;
    QTimer::singleShot(retryDelay, this, &GcpDataForwarder::reconnect);
    m_tokenState = RequestFailed;
}

void GcpDataForwarder::forward(QSharedPointer<IcomCommandResponse> resp)
{
    publishOrPostpone(CloudMessage::received(senderConfig(), *resp), &m_postponedFrames);
}

void GcpDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    publishOrPostpone(CloudMessage::sent(senderConfig(), *command), &m_postponedCommands);
}

void GcpDataForwarder::publishOrPostpone(const CloudMessage &message, QList<CloudMessage> *postponed)
{
    if (m_tokenState == Ready) {
        publish(message);
        return;
    }
    qInfo() << "forwarder id=" << id() << " postponed frame : forwarder is not ready (" << postponed->size()
            << ")";
    postponed->append(message);
    QTimer::singleShot(retryDelay, this, &GcpDataForwarder::reconnect);
}

void GcpDataForwarder::forwardStoredMessages()
{
    if (m_tokenState != Ready)
        return; // the token was lost meanwhile: they go with the next one
    while (!m_postponedFrames.isEmpty())
        publish(m_postponedFrames.takeFirst());
    while (!m_postponedCommands.isEmpty())
        publish(m_postponedCommands.takeFirst());
}

void GcpDataForwarder::publish(const CloudMessage &message)
{
    const QByteArray data = ServiceAccount::toBase64Url(message.toJson());
    QNetworkRequest request =
        cloudRequest(publishUrl(m_endpoint, m_projectId, m_topic), QStringLiteral("application/json"));
    request.setRawHeader("Authorization", "Bearer " + m_bearerToken);
    request.setTransferTimeout(publishTimeout);
    // Single quotes as they are, on purpose.
    m_networkManager->post(request, "{'messages':[{'data':'" + data + "'}]}");
}
