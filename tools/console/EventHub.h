#pragma once

#include "tools/console/History.h"

#include <QObject>
#include <QTimer>

#include <functional>
#include <memory>
#include <vector>

class QTcpSocket;

/// Those who follow what is live (server-sent events, WHATWG HTML 9.2). Each reads the shared history at its
/// own pace, so that a slow one holds up nobody and takes no memory; what it missed is told it as a count.
class EventHub : public QObject
{
    Q_OBJECT

public:
    static constexpr int maximumClients = 32;

    using SessionCheck = std::function<bool(const QByteArray &session)>;

    /// `mayStay` says whether a client that came with this session may go on listening.
    EventHub(const History &history, SessionCheck mayStay, QObject *parent = nullptr);
    ~EventHub() override;

    bool isFull() const { return m_clients.size() >= size_t(maximumClients); }

    /// Takes over a socket on which the head of the answer was written. `lastEventId` is the id of the last
    /// event that the client has, empty for none: then it gets all that is there.
    void add(QTcpSocket *socket, const QByteArray &lastEventId, const QByteArray &session);
    /// Lets everybody go who may not stay any longer.
    void dropEnded();

    /// Tells everybody the state, a JSON object on one line; a newer one replaces one that still waits.
    void sendState(const QByteArray &state);
    /// There is a new record; it goes out in a moment.
    void scheduleFlush();

signals:
    /// Somebody came to an empty hub, or the last one went.
    void watchedChanged(bool watched);

private:
    struct Client;

    void flush();
    void write(Client &client);
    void sendHeartbeats();
    void remove(const QTcpSocket *socket);

    const History &m_history;
    const SessionCheck m_mayStay;
    const QByteArray m_instance; ///< tells the ids of this run from those of a former one
    QByteArray m_state;
    std::vector<std::unique_ptr<Client>> m_clients;
    QTimer m_flushTimer;
    QTimer m_heartbeat;
};
