#include "forwarders/AccessToken.h"

#include "forwarders/PublishRequest.h"
#include "forwarders/ServiceAccount.h"
#include "network/LimitedAnswer.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace {

constexpr int assertionLifetime = 1800; // s
constexpr qint64 usualLifetime = 1800; // s, of a token whose server does not tell
constexpr qint64 longestLifetime = 24LL * 3600; // s

/// What keeps an output from working as its row stands; empty when nothing does.
QString problemOf(const DataForwarderConfig &row, const QString &tokenUri, const QByteArray &assertion)
{
    if (row.ids < 0)
        return QStringLiteral("the output's row cannot be read");
    if (assertion.isEmpty())
        return QStringLiteral("the secret holds no credential with an RSA key");
    if (!isTopicId(row.context))
        return QStringLiteral("there can be no topic of the name \"%1\"").arg(row.context);
    const QString problem = endpointProblem(row.target);
    return problem.isEmpty() ? tokenUriProblem(tokenUri) : problem;
}

} // namespace

AccessToken::AccessToken(QNetworkAccessManager *network, ServerClock *clock, Row row, int timeout)
    : m_network(network), m_clock(clock), m_row(std::move(row)), m_patience(timeout)
{
    m_renewal.setSingleShot(true);
    connect(&m_renewal, &QTimer::timeout, this, &AccessToken::request);
}

QByteArray AccessToken::value() const
{
    return m_value.isEmpty() || m_age.hasExpired(m_lifetime) ? QByteArray() : m_value;
}

void AccessToken::request()
{
    if (m_requesting)
        return;
    const DataForwarderConfig row = m_row();
    const ServiceAccount account(row.secret);
    m_requested = {account.projectId(), row.context, pubSubEndpoint(row.target)};
    m_signedAt = m_clock->secondsSinceEpoch();
    const QByteArray assertion = account.signedAssertion(m_signedAt, assertionLifetime);
    const QString problem = problemOf(row, account.tokenUri(), assertion);
    if (problem.isEmpty())
        post(account.tokenUri(), assertion);
    else
        fail(problem, 0);
}

void AccessToken::post(const QString &tokenUri, const QByteArray &assertion)
{
    m_requesting = true;
    QNetworkRequest request = tokenRequest(tokenUri);
    request.setRawHeader("Accept-Encoding", "identity"); // so that the limit holds for what is unpacked, too
    QNetworkReply *reply = m_network->post(request, tokenRequestBody(assertion));
    limitAnswer(reply);
    QTimer::singleShot(m_patience.ms(), reply, &QNetworkReply::abort);
    connect(reply, &QNetworkReply::finished, this, [this, reply] { finish(reply); });
}

void AccessToken::finish(QNetworkReply *reply)
{
    reply->deleteLater();
    m_requesting = false;
    m_clock->note(reply->rawHeader("Date"));
    const int code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray answer = answerOf(reply);
    if (code == 200 && take(answer)) {
        m_signedAgain = false;
        m_patience.reset();
        emit obtained();
        return;
    }
    if (reply->error() == QNetworkReply::OperationCanceledError)
        m_patience.lengthen();
    m_signedAgain = !m_signedAgain && code != 0 && m_clock->isFarOff(m_signedAt);
    if (m_signedAgain) {
        request(); // signed with the server's time it may be taken
        return;
    }
    QString reason = errorText(answer);
    if (reason.isEmpty())
        reason = code == 200 ? QStringLiteral("the answer holds no access token") : failureText(reply);
    fail(QStringLiteral("no access token: %1").arg(reason),
        m_clock->retryAfter(reply->rawHeader("Retry-After")));
}

void AccessToken::fail(const QString &reason, qint64 retryAfter)
{
    if (!value().isEmpty()) // there is still time for another try
        m_renewal.start(int(qMax(retryAfter, m_lifetime / 100)));
    emit failed(reason, retryAfter);
}

bool AccessToken::take(const QByteArray &answer)
{
    const auto token = accessToken(answer);
    if (!token || token->isEmpty())
        return false;
    const QJsonValue expiry = QJsonDocument::fromJson(answer).object().value(QLatin1String("expires_in"));
    const qint64 seconds = expiry.toVariant().toLongLong(); // a number, or one in quotes
    m_lifetime = qBound<qint64>(1, seconds > 0 ? seconds : usualLifetime, longestLifetime) * 1000;
    m_value = *token;
    m_destination = m_requested;
    m_age.start();
    m_renewal.start(int(m_lifetime / 10 * 9));
    return true;
}
