#pragma once

#include "forwarders/CloudMessage.h"

#include <QList>
#include <QTimer>

#include <functional>

class QNetworkReply;

/// The messages of one output on their way to a topic, in order. A few at a time are with the network; what
/// waits is small and can be taken back.
class PublishQueue : public QObject
{
    Q_OBJECT

public:
    /// Hands one message to the network.
    using Post = std::function<QNetworkReply *(const CloudMessage &)>;

    /// The requests are aborted when nothing has moved on any of them for `patience` ms.
    PublishQueue(const Post &post, int patience);

    /// Posts the message behind those that wait.
    void append(const CloudMessage &message);
    /// Takes note of a request that has ended; false when it is none of this queue's.
    bool remove(QNetworkReply *reply);
    /// Posts what waits, as far as there is room.
    void postWaiting();
    /// Takes back what was not posted yet, in order.
    QList<CloudMessage> takeWaiting();

private:
    void giveUp();

    const Post m_post;
    QList<CloudMessage> m_waiting;
    QList<QNetworkReply *> m_posted;
    QTimer m_silence;
};
