#include "forwarders/PubSubPublisher.h"

#include "forwarders/CloudRequests.h"
#include "network/LimitedAnswer.h"

#include <QDebug>
#include <QNetworkReply>

#include <algorithm>

namespace {

constexpr int mostUnderWay = 4; // requests
constexpr int slowestLine = 8; // bytes in a ms
constexpr int smallestBatch = 1024; // bytes

} // namespace

PubSubPublisher::PubSubPublisher(PubSubQueue *queue, AccessToken::Row row, const PublisherTimes &times)
    : m_queue(queue), m_times(times), m_token(&m_network, &m_clock, std::move(row), times.answerTimeout),
      m_backoff(times.firstRest), m_patience(times.answerTimeout)
{
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &PubSubPublisher::publish);
    connect(&m_token, &AccessToken::obtained, this, [this] {
        emit tokenObtained();
        publish();
    });
    connect(&m_token, &AccessToken::failed, this, [this](const QString &reason, qint64 retryAfter) {
        if (!m_token.value().isEmpty())
            return; // the old one still serves; who finds that it does not asks again
        m_backoff.fail(retryAfter);
        rest(reason);
        emit tokenFailed();
    });
}

PubSubPublisher::~PubSubPublisher()
{
    // Requests end with the manager, and nobody is left to hear of it.
    const auto replies = m_network.findChildren<QNetworkReply *>();
    for (QNetworkReply *reply : replies)
        reply->disconnect(this);
    m_token.disconnect(this);
}

void PubSubPublisher::publish()
{
    if (m_backoff.isResting()) {
        m_retry.start(int(m_backoff.restLeft()));
        return;
    }
    if (m_token.value().isEmpty()) {
        m_token.request();
        return;
    }
    // After a failure one request finds out whether the others are worth sending.
    while (m_underWay < (m_backoff.hasFailed() ? 1 : mostUnderWay) && publishNext()) { }
}

/// False when there is nothing to send.
bool PubSubPublisher::publishNext()
{
    Batch batch;
    const auto messages = nextMessages(&batch);
    if (!messages) {
        m_backoff.fail();
        rest(QStringLiteral("the outbox cannot be read"));
        emit outboxFailed();
        return false;
    }
    if (!messages->isEmpty())
        post(batch, *messages);
    return !messages->isEmpty();
}

/// What the next request carries; empty when there is nothing, nothing when it cannot be read.
std::optional<QVector<OutboxMessage>> PubSubPublisher::nextMessages(Batch *batch)
{
    while (!m_waiting.isEmpty()) {
        *batch = m_waiting.first();
        auto messages = m_queue->takeAgain(batch->range, batch->limit, m_batchBytes);
        if (!messages)
            return {};
        m_waiting.removeFirst();
        if (messages->isEmpty())
            continue; // dropped meanwhile
        const qint64 last = messages->last().sequence;
        if (last < batch->range.last)
            m_waiting.prepend({{last + 1, batch->range.last}, batch->limit});
        batch->range.last = last;
        return messages;
    }
    auto messages = m_queue->take(mostMessagesInBatch, m_batchBytes);
    if (messages && !messages->isEmpty())
        batch->range = {messages->first().sequence, messages->last().sequence};
    return messages;
}

void PubSubPublisher::post(const Batch &batch, const QVector<OutboxMessage> &messages)
{
    const QByteArray body = publishBody(messages, m_queue->uuid());
    const QByteArray token = m_token.value();
    QNetworkRequest request =
        cloudRequest(publishUrl(m_token.endpoint(), m_token.projectId(), m_token.topic()),
            QStringLiteral("application/json"));
    request.setRawHeader("Authorization", "Bearer " + token);
    request.setRawHeader("Accept-Encoding", "identity"); // so that the limit holds for what is unpacked, too
    QNetworkReply *reply = m_network.post(request, body);
    limitAnswer(reply);
    QTimer::singleShot(m_patience.ms() + body.size() / slowestLine, reply, &QNetworkReply::abort);
    ++m_underWay;
    const int messageCount = messages.size();
    connect(reply, &QNetworkReply::finished, this, [=] { finish(reply, batch, messageCount, token); });
}

void PubSubPublisher::finish(
    QNetworkReply *reply, const Batch &batch, int messageCount, const QByteArray &token)
{
    reply->deleteLater();
    --m_underWay;
    m_clock.note(reply->rawHeader("Date"));
    const int code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const bool isComplete = reply->error() != QNetworkReply::OperationCanceledError;
    const QString phrase = code == 0 || !isComplete
        ? failureText(reply)
        : reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
    const PublishAnswer answer = publishAnswer(isComplete ? code : 0, phrase, answerOf(reply), messageCount);
    const qint64 retryAfter = m_clock.retryAfter(reply->rawHeader("Retry-After"));
    if (!isComplete) {
        m_batchBytes = qMax(smallestBatch, m_batchBytes / 2);
        m_patience.lengthen();
    }
    if (answer.verdict == PublishAnswer::Unauthorized) {
        wait(batch);
        renewToken(token, answer.reason, retryAfter);
    } else {
        handle(answer, batch, messageCount, retryAfter);
    }
    emit finished(answer.verdict == PublishAnswer::Accepted);
    publish();
}

void PubSubPublisher::handle(
    const PublishAnswer &answer, const Batch &batch, int messageCount, qint64 retryAfter)
{
    switch (answer.verdict) {
    case PublishAnswer::Accepted:
        m_queue->accept(batch.range);
        m_batchBytes = qMin(mostBytesInBatch, m_batchBytes * 2);
        m_patience.reset();
        m_tokenRenewed = false;
        m_refused = 0;
        m_logged.clear();
        if (!m_backoff.isResting()) // the server may have asked for it meanwhile
            m_backoff.reset();
        break;
    case PublishAnswer::Refused:
        narrow(batch, messageCount, answer.reason);
        break;
    case PublishAnswer::Forbidden:
        wait(batch);
        m_token.drop(); // the row is read again with the next one, and may have been mended
        m_backoff.rest(qMax<qint64>(retryAfter, m_times.forbiddenRest));
        rest(QStringLiteral("project \"%1\", topic \"%2\" : %3")
                 .arg(m_token.projectId(), m_token.topic(), answer.reason));
        break;
    default:
        wait(batch);
        m_backoff.fail(retryAfter);
        if (m_backoff.isLongest())
            m_token.drop(); // the row may name the wrong endpoint, and have been mended
        rest(answer.reason);
    }
}

/// A token that is refused is renewed at once, once.
void PubSubPublisher::renewToken(const QByteArray &refused, const QString &reason, qint64 retryAfter)
{
    if (refused != m_token.value())
        return; // there is another one by now, or there will be
    m_token.drop();
    if (m_tokenRenewed) {
        m_backoff.fail(retryAfter);
        rest(reason);
    }
    m_tokenRenewed = true;
}

/// Looks for the message that the server refuses.
void PubSubPublisher::narrow(const Batch &batch, int messageCount, const QString &reason)
{
    if (messageCount > 1) {
        wait({batch.range, (messageCount + 1) / 2});
        return;
    }
    const auto messages = m_queue->takeAgain(batch.range, 1, mostBytesInBatch);
    if (!messages) {
        wait(batch);
    } else if (!messages->isEmpty()) {
        qInfo() << "PubSubDataForwarder : message" << batch.range.first << "is refused :" << reason;
        m_queue->refuse({messages->first(), reason});
        if (++m_refused
            >= Outbox::keptRefused) { // it is hardly the messages: from here on they would be lost
            m_token.drop(); // the row may be wrong, and have been mended
            m_backoff.rest(m_times.forbiddenRest);
            rest(reason);
        }
    }
}

void PubSubPublisher::wait(const Batch &batch)
{
    const auto next = std::find_if(m_waiting.begin(), m_waiting.end(),
        [&](const Batch &each) { return each.range.first > batch.range.first; });
    m_waiting.insert(next, batch);
}

/// Tries again when the rest is over; logs why it rests, once.
void PubSubPublisher::rest(const QString &reason)
{
    m_retry.start(int(m_backoff.restLeft()));
    if (reason != m_logged)
        qInfo() << "PubSubDataForwarder : nothing is accepted :" << reason;
    m_logged = reason;
}
