#include "forwarders/GcpDataForwarder.h"

#include "forwarders/ServiceAccount.h"
#include "network/LimitedAnswer.h"
#include "protocol/ActionCommands.h"

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

} // namespace

GcpDataForwarder::GcpDataForwarder(QObject *parent, int id, int patience)
    : DataForwarder(parent, id), m_patience(patience), m_networkManager(new QNetworkAccessManager),
      m_publishQueue([this](const CloudMessage &message) { return post(message); }, patience)
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
    const QByteArray assertion = account.signedAssertion(QDateTime::currentSecsSinceEpoch(), m_tokenLifetime);
    if (assertion.isEmpty()) {
        qInfo() << "Unable to parse private key - check GCP secret in configuration";
        return;
    }
    QString problem = endpointProblem(config.target);
    if (problem.isEmpty())
        problem = tokenUriProblem(account.tokenUri());
    if (!isRefused(problem))
        requestToken(account.tokenUri(), assertion,
            {account.projectId(), config.context, pubSubEndpoint(config.target)});
}

/// Logs what is wrong with an address once, however often a token is wanted.
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

void GcpDataForwarder::requestToken(
    const QString &tokenUri, const QByteArray &assertion, const CloudDestination &destination)
{
    QNetworkReply *reply = m_networkManager->post(tokenRequest(tokenUri), tokenRequestBody(assertion));
    m_requested.insert(reply, destination);
    QTimer::singleShot(m_patience, reply, &QNetworkReply::abort);
    limitAnswer(reply);
}

void GcpDataForwarder::replyFinished(QNetworkReply *reply)
{
    reply->deleteLater();
    const bool isPublish = m_publishQueue.remove(reply);
    const CloudDestination requested = m_requested.take(reply);
    const int code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const bool hasToken = m_tokenState == Ready;
    if (code != 200) {
        logRefusal(code, reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString());
        // A token request that a later one has overtaken says nothing about the token that is held.
        if (isPublish || !hasToken)
            loseToken();
    } else if (!isPublish) {
        if (!hasToken) // else a later request has overtaken this one
            takeToken(reply->readAll(), requested);
    } else if (hasToken) {
        m_reconnecting = false;
        setStatus(DataForwarderConfig::Working);
        QTimer::singleShot(flushDelay, this, &GcpDataForwarder::forwardStoredMessages);
    }
    m_publishQueue.postWaiting();
}

void GcpDataForwarder::takeToken(const QByteArray &answer, const CloudDestination &destination)
{
    const auto token = accessToken(answer);
    if (!token) {
        qInfo() << "GcpDataForwarder : the answer holds no access token.";
        return;
    }
    m_bearerToken = *token;
    m_destination = destination;
    m_tokenState = Ready;
}

void GcpDataForwarder::logRefusal(int code, const QString &reason)
{
    if (code == 401 || code == 403)
        qInfo() << "GcpDataForwarder : invalid credentials.";
    else
        qInfo() << "GcpDataForwarder : Unhandled HTTP response : code=" << code << " reason=" << reason;
}

void GcpDataForwarder::loseToken()
{
    QTimer::singleShot(retryDelay, this, &GcpDataForwarder::reconnect);
    m_tokenState = RequestFailed;
    // Whatever is postponed now is older than what waits.
    const QList<CloudMessage> waiting = m_publishQueue.takeWaiting();
    for (const CloudMessage &message : waiting)
        (message.isReceived() ? m_postponedFrames : m_postponedCommands).append(message);
}

void GcpDataForwarder::forward(QSharedPointer<IcomCommandResponse> resp)
{
    publishOrPostpone(CloudMessage::received(senderConfig(), *resp), &m_postponedFrames);
}

void GcpDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    CloudMessage message = CloudMessage::sent(senderConfig(), *command);
    if (command.objectCast<AnalogKillCommand>())
        message.command = command; // its text grows when it is asked for: not before it is published
    publishOrPostpone(message, &m_postponedCommands);
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

void GcpDataForwarder::publish(CloudMessage message)
{
    message.askText();
    m_publishQueue.append(message);
}

QNetworkReply *GcpDataForwarder::post(const CloudMessage &message)
{
    const QByteArray data = ServiceAccount::toBase64Url(message.toJson(CloudOwner::read()));
    QNetworkRequest request =
        cloudRequest(publishUrl(m_destination.endpoint, m_destination.projectId, m_destination.topic),
            QStringLiteral("application/json"));
    request.setRawHeader("Authorization", "Bearer " + m_bearerToken);
    // Single quotes as they are, on purpose.
    QNetworkReply *reply = m_networkManager->post(request, "{'messages':[{'data':'" + data + "'}]}");
    limitAnswer(reply);
    return reply;
}
