#pragma once

#include "forwarders/AccessToken.h"
#include "forwarders/Backoff.h"
#include "forwarders/Patience.h"
#include "forwarders/PubSubQueue.h"
#include "forwarders/PublishRequest.h"
#include "forwarders/ServerClock.h"

#include <QList>
#include <QNetworkAccessManager>

/// Periods of a publisher, all in ms; tests shorten them.
struct PublisherTimes
{
    int firstRest = 1000; ///< after a failure, at the longest; the next ones double it up to 60 times
    int forbiddenRest = 60000; ///< after a 403 or 404
    /// For an answer, beside what its request takes to be sent; longer after silence.
    int answerTimeout = 20000;
};

/// Brings what a queue holds to a Pub/Sub topic: in batches, up to four requests at a time, the oldest first.
/// Messages leave the queue when the server has accepted them, or has refused them for good.
class PubSubPublisher : public QObject
{
    Q_OBJECT

public:
    /// `row` yields the output's row as it stands; `queue` has to outlive the publisher.
    PubSubPublisher(PubSubQueue *queue, AccessToken::Row row, const PublisherTimes &times);
    ~PubSubPublisher() override;

    /// Sends what may be sent now; to be called when a message was added.
    void publish();

signals:
    /// The row was read and a token is held.
    void tokenObtained();
    /// A request for a token failed, and none is held.
    void tokenFailed();
    /// A request to publish ended; the queue may have changed.
    void finished(bool accepted);
    /// What is to be sent could not be read, and is tried again.
    void outboxFailed();

private:
    struct Batch
    {
        SequenceRange range;
        int limit = mostMessagesInBatch; // messages; fewer after a refusal
    };

    bool publishNext();
    std::optional<QVector<OutboxMessage>> nextMessages(Batch *batch);
    void post(const Batch &batch, const QVector<OutboxMessage> &messages);
    void finish(QNetworkReply *reply, const Batch &batch, int messageCount, const QByteArray &token);
    void handle(const PublishAnswer &answer, const Batch &batch, int messageCount, qint64 retryAfter);
    void renewToken(const QByteArray &refused, const QString &reason, qint64 retryAfter);
    void narrow(const Batch &batch, int messageCount, const QString &reason);
    void wait(const Batch &batch);
    void rest(const QString &reason);

    PubSubQueue *const m_queue;
    const PublisherTimes m_times;
    QNetworkAccessManager m_network;
    ServerClock m_clock;
    AccessToken m_token;
    Backoff m_backoff;
    Patience m_patience;
    QTimer m_retry;
    QList<Batch> m_waiting; // failed ones, the oldest first
    int m_underWay = 0;
    int m_batchBytes = mostBytesInBatch; // less on a line that is too slow for it
    int m_refused = 0; // messages, since one was accepted
    bool m_tokenRenewed = false; // because of a 401, and nothing was accepted since
    QString m_logged; // the failure that was logged last; empty after a success
};
