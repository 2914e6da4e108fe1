#include "autokill/AutoKill.h"

#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "network/LimitedAnswer.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslConfiguration>
#include <QUrl>

namespace {

const QString defaultServiceAddress = QStringLiteral("https://resources.example.org");
const QString loginPath = QStringLiteral("/api/auth");
const QString resourcesPath =
    QStringLiteral("/api/ressource?limit=%1&offset=0&type=dpmr&attributeName=autokill&attributeValue=true");
constexpr int resourcesLimit = 100;
constexpr int requestTimeout = 60000; // ms
constexpr int retryDelay = 1000; // ms

bool isServiceAddress(const QUrl &url)
{
    const QUrl hostAndPort =
        url.adjusted(QUrl::RemoveUserInfo | QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment);
    return url.isValid() && url.scheme() == QLatin1String("https") && !url.host().isEmpty()
        && url == hostAndPort;
}

} // namespace

AutoKill *AutoKill::getInstance()
{
    static auto *instance = new AutoKill; // lives until the process ends
    return instance;
}

AutoKill::AutoKill(QObject *parent)
    : QObject(parent), m_userName(UNDEFINED_VALUE), m_password(UNDEFINED_VALUE),
      m_resourcesPath(resourcesPath.arg(resourcesLimit))
{
    m_giveUpTimer.setSingleShot(true);
    m_giveUpTimer.setInterval(requestTimeout);
    connect(&m_giveUpTimer, &QTimer::timeout, this, [this] {
        if (m_awaitedReply)
            m_awaitedReply->abort();
    });
}

void AutoKill::startIfEnabled()
{
    const bool starts = isEnabled();
    if (ConfigDatabase::getInstance()->lastReadFailed()) {
        if (!m_isPutOff)
            qInfo()
                << "AutoKill : the configuration file cannot be read - whether it is enabled is asked again";
        m_isPutOff = true;
        QTimer::singleShot(retryDelay, this, &AutoKill::startIfEnabled);
    } else if (starts) {
        start();
    }
}

void AutoKill::start()
{
    m_refreshTimer.stop();
    delete m_networkManager;
    m_networkManager = nullptr;
    ConfigDatabase *database = ConfigDatabase::getInstance();
    m_userName = database->getSystemConfigurationValue(AUTOKILL_USER_KEY);
    m_password = database->getSystemConfigurationValue(AUTOKILL_PWD_KEY);
    if (!readServiceAddress())
        return;
    m_networkManager = new QNetworkAccessManager(this);
    connect(m_networkManager, &QNetworkAccessManager::finished, this, &AutoKill::replyFinished);
    m_refreshTimer.setInterval(m_refreshInterval);
    connect(&m_refreshTimer, &QTimer::timeout, this, &AutoKill::refresh, Qt::UniqueConnection);
    m_refreshTimer.start();
    refresh();
}

bool AutoKill::isFlagged(const QString &radioId) const
{
    // The list first: it is in memory, and hardly any radio stands on it.
    if (!m_flaggedRadios.contains(radioId))
        return false;
    return isEnabled();
}

bool AutoKill::isEnabled() const
{
    const QString enabled = ConfigDatabase::getInstance()->getSystemConfigurationValue(AUTOKILL_ENABLED_KEY);
    return enabled.toUpper() == QLatin1String("TRUE");
}

bool AutoKill::readServiceAddress()
{
    m_serviceAddress = ConfigDatabase::getInstance()->getSystemConfigurationValue(AUTOKILL_URL_KEY);
    if (m_serviceAddress == UNDEFINED_VALUE) {
        m_serviceAddress = defaultServiceAddress;
        qInfo() << "AutoKill : autokill_url is not configured, asking" << m_serviceAddress;
    }
    if (m_serviceAddress.endsWith(QLatin1Char('/')))
        m_serviceAddress.chop(1);
    if (isServiceAddress(QUrl(m_serviceAddress, QUrl::StrictMode)))
        return true;
    qInfo() << "AutoKill : autokill_url must be https://host or https://host:port, nothing is sent.";
    return false;
}

QNetworkRequest AutoKill::requestTo(const QString &pathAndQuery) const
{
    QNetworkRequest request(QUrl(m_serviceAddress + pathAndQuery));
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setProtocol(QSsl::TlsV1_3OrLater);
    request.setSslConfiguration(tls);
    // The service expects this text in this header, on purpose, and not in an Accept header.
    request.setHeader(
        QNetworkRequest::ServerHeader, QStringLiteral("accept:application/json; charset=UTF-8"));
    request.setRawHeader("Accept-Encoding", "identity"); // so that the limit holds for what is unpacked, too
    return request;
}

void AutoKill::refresh()
{
    m_flaggedRadios.clear();
    m_state = WaitingForLogin;
    QNetworkRequest request = requestTo(loginPath);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    // Both texts are inserted as they are, in one go, so that a "%2" in the user name stays what it is.
    const QString body =
        QStringLiteral("{\"username\":\"%1\",\"password\":\"%2\"}").arg(m_userName, m_password);
    waitFor(m_networkManager->post(request, body.toUtf8()));
}

void AutoKill::retrieveDeathNote(QString bearer_token)
{
    QNetworkRequest request = requestTo(m_resourcesPath);
    request.setRawHeader("authorization", QStringLiteral("Bearer %1").arg(bearer_token).toUtf8());
    waitFor(m_networkManager->get(request));
}

void AutoKill::waitFor(QNetworkReply *reply)
{
    QNetworkReply *overtaken = m_awaitedReply;
    limitAnswer(reply);
    m_awaitedReply = reply;
    m_giveUpTimer.start();
    if (overtaken) // it would keep one of the few connections to the service busy
        overtaken->abort();
}

void AutoKill::replyFinished(QNetworkReply *reply)
{
    reply->deleteLater();
    if (reply != m_awaitedReply)
        return;
    m_awaitedReply = nullptr;
    // Of an answer that came too slowly there may be a beginning, which does not count.
    const bool isGivenUp = reply->error() == QNetworkReply::OperationCanceledError;
    const auto attribute = [&](QNetworkRequest::Attribute each) {
        return isGivenUp ? QVariant() : reply->attribute(each);
    };
    const int code = attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (code == 401) {
        qInfo() << "Autokill : invalid credentials.";
        return;
    }
    if (code != 200) {
        qInfo() << "AutoKill : Unhandled HTTP response : code=" << code
                << " reason=" << attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        m_state = UnexpectedAnswer;
        return;
    }
    handleOkAnswer(reply);
}

void AutoKill::handleOkAnswer(QNetworkReply *reply)
{
    const QByteArray body = reply->readAll();
    const QJsonObject answer = QJsonDocument::fromJson(body).object();
    switch (m_state) {
    case WaitingForLogin:
        m_state = WaitingForResources;
        retrieveDeathNote(answer.value(QLatin1String("accessToken")).toString());
        return;
    case WaitingForResources: {
        m_state = WaitingForLogin;
        const QJsonArray entities = answer.value(QLatin1String("entities")).toArray();
        for (const QJsonValue &entity : entities)
            m_flaggedRadios.append(entity.toObject().value(QLatin1String("externalId")).toString());
        return;
    }
    case UnexpectedAnswer:
        qInfo() << "Current status : " << m_state << " got ignored reply : " << body;
        m_state = WaitingForLogin;
        return;
    }
}
