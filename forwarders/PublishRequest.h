#pragma once

#include "forwarders/Outbox.h"

// Body and answer of projects.topics.publish:
// https://cloud.google.com/pubsub/docs/reference/rest/v1/projects.topics/publish

/// The most that goes into one request.
constexpr int mostMessagesInBatch = 500;
constexpr int mostBytesInBatch = 1000000; // of the body

/// Strict JSON. Each message has its text as `data`, in standard base64, and the attributes outbox, sequence,
/// gateway, port and trx; the last three are taken from the text.
QByteArray publishBody(const QVector<OutboxMessage> &messages, const QByteArray &outboxUuid);

/// What an answer means for the messages of its request.
struct PublishAnswer
{
    enum Verdict {
        Accepted,
        NoAnswer, ///< nothing that can be believed, or trouble that passes: try again
        Unauthorized, ///< 401: the token is no good
        Forbidden, ///< 403 or 404: topic or permission are missing; somebody has to mend that
        Refused, ///< 400 or 413: at least one of the messages is no good
    };

    Verdict verdict;
    QString reason; ///< what the server says, or what is wrong with the answer; one line
};

/// `code` is the HTTP status, 0 when there was none; `phrase` its reason phrase, or the network's error text.
PublishAnswer publishAnswer(int code, const QString &phrase, const QByteArray &body, int messageCount);

/// The error text of a Google answer (google.rpc.Status) or of an OAuth one (RFC 6749, 5.2); one line, empty
/// when there is none.
QString errorText(const QByteArray &body);

/// Whether a text can be a topic's id: https://cloud.google.com/pubsub/docs/pubsub-basics#resource_names
/// A server refuses every message for a topic that cannot be.
bool isTopicId(const QString &text);
