#include "forwarders/PublishQueue.h"

#include <QNetworkReply>

#include <utility>

namespace {

// The network manager's connections to one host: more would only wait in it, each with its reply object, and
// would all be refused together with the token.
constexpr int longestPosted = 6;

} // namespace

PublishQueue::PublishQueue(const Post &post, int patience) : m_post(post)
{
    m_silence.setSingleShot(true);
    m_silence.setInterval(patience);
    connect(&m_silence, &QTimer::timeout, this, &PublishQueue::giveUp);
}

void PublishQueue::append(const CloudMessage &message)
{
    m_waiting.append(message);
    postWaiting();
}

void PublishQueue::postWaiting()
{
    const auto restartSilence = qOverload<>(&QTimer::start);
    while (m_posted.size() < longestPosted && !m_waiting.isEmpty()) {
        QNetworkReply *reply = m_post(m_waiting.takeFirst());
        m_posted.append(reply);
        connect(reply, &QNetworkReply::encrypted, &m_silence, restartSilence);
        connect(reply, &QNetworkReply::uploadProgress, &m_silence, restartSilence);
        connect(reply, &QNetworkReply::metaDataChanged, &m_silence, restartSilence);
        connect(reply, &QNetworkReply::downloadProgress, &m_silence, restartSilence);
        m_silence.start();
    }
}

bool PublishQueue::remove(QNetworkReply *reply)
{
    if (!m_posted.removeOne(reply))
        return false;
    reply->disconnect(&m_silence);
    if (m_posted.isEmpty())
        m_silence.stop();
    else
        m_silence.start();
    return true;
}

void PublishQueue::giveUp()
{
    const QList<QNetworkReply *> posted = m_posted; // each is removed by its end
    for (QNetworkReply *reply : posted)
        reply->abort();
}

QList<CloudMessage> PublishQueue::takeWaiting()
{
    return std::exchange(m_waiting, {});
}
