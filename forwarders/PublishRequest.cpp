#include "forwarders/PublishRequest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>

namespace {

constexpr int longestReason = 500; // characters

QString oneLine(const QString &text)
{
    return text.simplified().left(longestReason);
}

QByteArray attributes(const OutboxMessage &message, const QByteArray &outboxUuid)
{
    const QJsonObject fields = QJsonDocument::fromJson(message.json).object();
    const QJsonObject result{
        {QStringLiteral("outbox"), QString::fromLatin1(outboxUuid)},
        {QStringLiteral("sequence"), QString::number(message.sequence)},
        {QStringLiteral("gateway"), fields.value(QLatin1String("source")).toString()},
        {QStringLiteral("port"), fields.value(QLatin1String("port")).toString()},
        {QStringLiteral("trx"), fields.value(QLatin1String("trx")).toString()},
    };
    return QJsonDocument(result).toJson(QJsonDocument::Compact);
}

/// The answer to a publish request holds one id for each message, and nothing else does.
bool isPublishAnswer(const QByteArray &body, int messageCount)
{
    const QJsonArray ids =
        QJsonDocument::fromJson(body).object().value(QLatin1String("messageIds")).toArray();
    return ids.size() == messageCount
        && std::all_of(ids.begin(), ids.end(), [](const QJsonValue &id) { return id.isString(); });
}

/// Whether something else than the messages has to be mended, such as billing or a region:
/// https://cloud.google.com/pubsub/docs/reference/error-codes
bool isPrecondition(const QByteArray &body)
{
    const QJsonValue error = QJsonDocument::fromJson(body).object().value(QLatin1String("error"));
    return error[QLatin1String("status")].toString() == QLatin1String("FAILED_PRECONDITION");
}

PublishAnswer::Verdict verdictOf(int code)
{
    switch (code) {
    case 401:
        return PublishAnswer::Unauthorized;
    case 403:
    case 404:
        return PublishAnswer::Forbidden;
    case 400:
    case 413:
        return PublishAnswer::Refused;
    default:
        return PublishAnswer::NoAnswer;
    }
}

} // namespace

QByteArray publishBody(const QVector<OutboxMessage> &messages, const QByteArray &outboxUuid)
{
    QByteArray body = R"({"messages":[)";
    for (const OutboxMessage &message : messages) {
        if (&message != messages.constBegin())
            body += ',';
        body += R"({"data":")" + message.json.toBase64() + R"(","attributes":)"
            + attributes(message, outboxUuid) + '}';
    }
    return body + "]}";
}

PublishAnswer publishAnswer(int code, const QString &phrase, const QByteArray &body, int messageCount)
{
    if (code == 200) {
        if (isPublishAnswer(body, messageCount))
            return {PublishAnswer::Accepted, {}};
        return {PublishAnswer::NoAnswer, QStringLiteral("the answer is no publish answer")};
    }
    const QString said = errorText(body);
    const QString reason = code == 0
        ? oneLine(phrase)
        : oneLine(QStringLiteral("%1 %2").arg(QString::number(code), said.isEmpty() ? phrase : said));
    const PublishAnswer::Verdict verdict = verdictOf(code);
    // A page of something on the way, or an answer that was cut, must not make messages refused.
    if (said.isEmpty() && verdict == PublishAnswer::Refused)
        return {PublishAnswer::NoAnswer, reason};
    return {isPrecondition(body) ? PublishAnswer::Forbidden : verdict, reason};
}

QString errorText(const QByteArray &body)
{
    const QJsonObject answer = QJsonDocument::fromJson(body).object();
    const QJsonValue error = answer.value(QLatin1String("error"));
    if (error.isObject()) {
        const QString message = error[QLatin1String("message")].toString();
        return oneLine(message.isEmpty() ? error[QLatin1String("status")].toString() : message);
    }
    const QString description = answer.value(QLatin1String("error_description")).toString();
    return oneLine(
        error.toString() + (description.isEmpty() ? QString() : QStringLiteral(": ") + description));
}

bool isTopicId(const QString &text)
{
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(QStringLiteral("(?!goog)[A-Za-z][A-Za-z0-9._~+%-]{2,254}")));
    return pattern.match(text).hasMatch();
}
