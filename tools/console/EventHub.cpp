#include "tools/console/EventHub.h"

#include "tools/console/SocketQueue.h"

#include <QRandomGenerator>

#include <algorithm>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

/// Records that come within this time go out together: 32 clients and 100 records a second are 640 writes
/// then.
const int flushMs = 50;
const int heartbeatMs = 15000;
/// A client that has vanished without a word is noticed after this time.
const unsigned deadAfterMs = 45000;
const qint64 maximumWaiting = 65536;

} // namespace

struct EventHub::Client
{
    QTcpSocket *socket;
    QByteArray session;
    qint64 next; ///< the number of the record that it gets next
    bool stateIsDue;
};

EventHub::EventHub(const History &history, SessionCheck mayStay, QObject *parent)
    : QObject(parent), m_history(history), m_mayStay(std::move(mayStay)),
      m_instance(QByteArray::number(QRandomGenerator::system()->generate(), 16))
{
    m_flushTimer.setSingleShot(true);
    m_flushTimer.setInterval(flushMs);
    connect(&m_flushTimer, &QTimer::timeout, this, &EventHub::flush);
    m_heartbeat.setInterval(heartbeatMs);
    connect(&m_heartbeat, &QTimer::timeout, this, &EventHub::sendHeartbeats);
}

EventHub::~EventHub() = default;

void EventHub::add(QTcpSocket *socket, const QByteArray &lastEventId, const QByteArray &session)
{
    const int dash = lastEventId.indexOf('-');
    const qint64 seen = lastEventId.mid(dash + 1).toLongLong();
    const bool known =
        dash > 0 && lastEventId.left(dash) == m_instance && seen >= 0 && seen <= m_history.last();

    setsockopt(
        int(socket->socketDescriptor()), IPPROTO_TCP, TCP_USER_TIMEOUT, &deadAfterMs, sizeof deadAfterMs);
    socket->setParent(this);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket, &QTcpSocket::readyRead, this, [socket] { socket->readAll(); });
    connect(socket, &QTcpSocket::bytesWritten, this, &EventHub::scheduleFlush);
    if (const auto *tls = qobject_cast<QSslSocket *>(socket))
        connect(tls, &QSslSocket::encryptedBytesWritten, this, &EventHub::scheduleFlush);
    connect(socket, &QTcpSocket::disconnected, this, [this, socket] { remove(socket); });
    socket->write(known ? "retry: 2000\n\n" : "retry: 2000\nevent: reset\ndata: {}\n\n");

    m_clients.push_back(
        std::make_unique<Client>(Client{socket, session, known ? seen + 1 : m_history.first(), false}));
    write(*m_clients.back());
    if (m_clients.size() > 1)
        return;
    m_heartbeat.start();
    emit watchedChanged(true);
}

void EventHub::sendState(const QByteArray &state)
{
    m_state = state;
    for (const auto &client : m_clients)
        client->stateIsDue = true;
    scheduleFlush();
}

void EventHub::scheduleFlush()
{
    if (!m_clients.empty() && !m_flushTimer.isActive())
        m_flushTimer.start();
}

void EventHub::flush()
{
    for (const auto &client : m_clients)
        write(*client);
}

void EventHub::write(Client &client)
{
    const qint64 waiting = waitingOf(*client.socket);
    if (waiting >= maximumWaiting)
        return;
    QByteArray events;
    if (client.next < m_history.first()) {
        events += "event: missed\ndata: {\"count\":" + QByteArray::number(m_history.first() - client.next)
            + "}\n\n";
        client.next = m_history.first();
    }
    if (client.stateIsDue)
        events += "event: state\ndata: " + m_state + "\n\n";
    client.stateIsDue = false;
    for (; client.next <= m_history.last() && waiting + events.size() < maximumWaiting; ++client.next)
        events += "id: " + m_instance + '-' + QByteArray::number(client.next)
            + "\nevent: record\ndata: " + m_history.line(client.next) + "\n\n";
    if (!events.isEmpty())
        client.socket->write(events);
}

void EventHub::sendHeartbeats()
{
    dropEnded();
    for (const auto &client : m_clients) {
        if (waitingOf(*client->socket) == 0)
            client->socket->write("event: alive\ndata: {}\n\n"); // a comment would not reach the page's code
    }
}

void EventHub::dropEnded()
{
    QVector<QTcpSocket *> ended;
    for (const auto &client : m_clients) {
        if (!m_mayStay(client->session))
            ended.append(client->socket);
    }
    for (QTcpSocket *socket : qAsConst(ended))
        socket->abort(); // which removes it
}

void EventHub::remove(const QTcpSocket *socket)
{
    const auto client = std::find_if(m_clients.begin(), m_clients.end(),
        [socket](const std::unique_ptr<Client> &candidate) { return candidate->socket == socket; });
    if (client == m_clients.end())
        return;
    (*client)->socket->disconnect(this);
    (*client)->socket->deleteLater();
    m_clients.erase(client);
    if (!m_clients.empty())
        return;
    m_heartbeat.stop();
    m_flushTimer.stop();
    emit watchedChanged(false);
}
