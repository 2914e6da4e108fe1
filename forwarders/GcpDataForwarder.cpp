#include "forwarders/GcpDataForwarder.h"

#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "forwarders/RadioModels.h"
#include "forwarders/ServiceAccount.h"

#include <QDebug>
#include <QHostInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QSslConfiguration>
#include <QTimer>

namespace {

// All in ms.
constexpr int firstRequestDelay = 1000;
constexpr int requestPeriod = 10000;
constexpr int retryDelay = 5000;
constexpr int flushDelay = 1000;
constexpr int publishTimeout = 120000; // with time for a long list of postponed messages

constexpr int longestAnswer = 1024 * 1024; // bytes

const QString publishedEndpoint = QStringLiteral("https://pubsub.googleapis.com");
const QString publishPath = QStringLiteral("/v1/projects/%1/topics/%2:publish");

/// A target that is a URL names the endpoint, for tests and emulators; any other means the provider's own
/// host.
QUrl endpointOf(const QString &target)
{
    const bool isUrl =
        target.startsWith(QLatin1String("https://")) || target.startsWith(QLatin1String("http://"));
    return QUrl(isUrl ? target : publishedEndpoint);
}

/// Whether a token can stand in a header: anything else would let its server write requests of its own.
bool isHeaderText(const QString &text)
{
    return std::all_of(
        text.cbegin(), text.cend(), [](QChar c) { return c > QLatin1Char(' ') && c < QChar(0x7f); });
}

QNetworkRequest requestTo(const QUrl &url, const QString &contentType)
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setProtocol(QSsl::TlsV1_3OrLater);
    request.setSslConfiguration(tls);
    return request;
}

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
    m_endpoint = endpointOf(config.target);
    m_projectId = account.projectId();
    const QByteArray assertion = account.signedAssertion(QDateTime::currentSecsSinceEpoch(), m_tokenLifetime);
    if (assertion.isEmpty()) {
        qInfo() << "Unable to parse private key - check GCP secret in configuration";
        return;
    }
    requestToken(account.tokenUri(), assertion);
}

void GcpDataForwarder::abortReconnect()
{
    m_reconnecting = false;
}

void GcpDataForwarder::requestToken(const QString &tokenUri, const QByteArray &assertion)
{
    QNetworkReply *reply =
        m_networkManager->post(requestTo(QUrl(tokenUri), QStringLiteral("application/x-www-form-urlencoded")),
            "grant_type=urn:ietf:params:oauth:grant-type:jwt-bearer&assertion=" + assertion);
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
    const QJsonObject document = QJsonDocument::fromJson(answer).object();
    const auto token = document.constFind(QLatin1String("access_token"));
    if (token == document.constEnd() || !isHeaderText(token->toString())) {
        qInfo() << "GcpDataForwarder : the answer holds no access token.";
        return;
    }
    m_bearerToken = token->toString().toUtf8();
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
    const QByteArray frame = resp->data();
    const QString text = QString::fromUtf8(frame.constData(), frame.size()); // with its NUL bytes
    publishOrPostpone({senderConfig(), QStringLiteral("RX"), text, resp->timestamp()}, &m_postponedFrames);
}

void GcpDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    // The text is taken now, as it is sent: a display text moves on when it is executed.
    publishOrPostpone({senderConfig(), QStringLiteral("TX"), command->commandText(), command->timestamp()},
        &m_postponedCommands);
}

void GcpDataForwarder::publishOrPostpone(const Message &message, QList<Message> *postponed)
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

void GcpDataForwarder::publish(const Message &message)
{
    ConfigDatabase *database = ConfigDatabase::getInstance();
    const QVariantMap fields{
        {QStringLiteral("port"), message.radio->port},
        {QStringLiteral("portDesc"), message.radio->name},
        {QStringLiteral("radioBand"), getRadioBand(message.radio->esn)},
        {QStringLiteral("radioModel"), getRadioModel(message.radio->esn)},
        {QStringLiteral("trx"), message.direction},
        {QStringLiteral("rawData"), message.rawData},
        {QStringLiteral("transmissionDate"), message.timestamp},
        {QStringLiteral("source"), QHostInfo::localHostName()},
        {QStringLiteral("owner_email"), database->getSystemConfigurationValue(OWNER_EMAIL_KEY)},
        {QStringLiteral("owner_dept"), database->getSystemConfigurationValue(OWNER_DEPT_KEY)},
    };
    const QByteArray data = ServiceAccount::toBase64Url(
        QJsonDocument(QJsonObject::fromVariantMap(fields)).toJson(QJsonDocument::Compact));

    QUrl url = m_endpoint;
    url.setPath(publishPath.arg(m_projectId, m_topic));
    QNetworkRequest request = requestTo(url, QStringLiteral("application/json"));
    request.setRawHeader("Authorization", "Bearer " + m_bearerToken);
    request.setTransferTimeout(publishTimeout);
    // Single quotes as they are, on purpose.
    m_networkManager->post(request, "{'messages':[{'data':'" + data + "'}]}");
}
