#pragma once

#include "forwarders/DataForwarder.h"

#include <QDeadlineTimer>
#include <QTcpSocket>
#include <QTimer>

class QHostInfo;

/// What the two TCP outputs share: one connection as a client, tried again 2 s after it failed or broke.
/// Connecting and writing block the event loop, for at most 15 s and 30 s. After a long wait for a connection
/// no TCP output tries to connect until what the radios said meanwhile has been read: for at least 1.5 s and
/// at most a minute. Messages for a server that is not connected are dropped.
class TcpDataForwarder : public DataForwarder
{
    Q_OBJECT

public:
    TcpDataForwarder(QObject *parent, int id);

protected:
    bool isConnected() const { return m_connected; }
    /// Hands one message to the operating system and waits until it has taken it.
    void write(const QByteArray &message);
    void waitUntilWritten();

private slots:
    void reconnect();
    void error(QAbstractSocket::SocketError socketError);
    void connected();

private:
    void tryAgainIn(int delayMs);
    int restLeft() const; // ms
    void connectToFoundHost(const QHostInfo &host);
    void connectBlocking();
    void giveUpAttempt(QAbstractSocket::SocketError socketError, const QString &reason);

    QTcpSocket m_socket;
    QTimer m_reconnectTimer;
    QDeadlineTimer m_stillInTime; // for the timer, unless the event loop is busy
    bool m_connected = false;
    bool m_isFound = false; // looked up before a rest
    QString m_target;
    int m_port = -1;
};
