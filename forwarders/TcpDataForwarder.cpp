#include "forwarders/TcpDataForwarder.h"

#include "forwarders/LongWait.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QHostInfo>

namespace {

// All in ms.
constexpr int reconnectDelay = 2000;
constexpr int connectTimeout = 15000;
constexpr int writeTimeout = 30000;
constexpr int longWait = 500;
// Shorter than reconnectDelay: the output that waited goes behind the others.
constexpr int restAfterLongWait = 1500;
constexpr int longestRest = 60000;
constexpr int lateness = 300; // of a timer, beyond which the event loop is busy

/// A configured port beyond the range must not end up at another service.
quint16 tcpPort(int configured)
{
    return configured >= 0 && configured <= 65535 ? quint16(configured) : 0;
}

/// What all TCP outputs share after some of them has waited long for a connection.
struct Rest
{
    QElapsedTimer sinceWait;
    QElapsedTimer sinceBusy;
};

Rest &rest()
{
    static Rest shared;
    return shared;
}

} // namespace

TcpDataForwarder::TcpDataForwarder(QObject *parent, int id) : DataForwarder(parent, id)
{
    setStatus(DataForwarderConfig::Idle);
    const DataForwarderConfig config = configuration();
    m_target = config.target;
    m_port = config.port;
    m_reconnectTimer.setSingleShot(true);
    connect(&m_reconnectTimer, &QTimer::timeout, this, &TcpDataForwarder::reconnect);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &TcpDataForwarder::error);
    connect(&m_socket, &QTcpSocket::connected, this, &TcpDataForwarder::connected);
    // What the server says is of no interest, but it must not pile up.
    connect(&m_socket, &QTcpSocket::readyRead, this, [this] { m_socket.skip(m_socket.bytesAvailable()); });
    tryAgainIn(reconnectDelay);
}

void TcpDataForwarder::tryAgainIn(int delayMs)
{
    m_stillInTime.setRemainingTime(delayMs + lateness);
    m_reconnectTimer.start(delayMs);
}

int TcpDataForwarder::restLeft() const
{
    if (!rest().sinceWait.isValid() || rest().sinceWait.hasExpired(longestRest))
        return 0;
    // A timer that comes late has waited for what the radios said meanwhile to be read: there may be more.
    if (m_stillInTime.hasExpired())
        rest().sinceBusy.start();
    return int(qMax(0LL, restAfterLongWait - rest().sinceBusy.elapsed()));
}

void TcpDataForwarder::reconnect()
{
    if (m_connected)
        return;
    // Without a rest the waits of several outputs would follow each other for ever, and the radios' lines
    // would overflow meanwhile.
    if (const int left = restLeft(); left > 0) {
        tryAgainIn(left);
        return;
    }
    if (m_isFound || !QHostAddress(m_target).isNull()) {
        m_isFound = false;
        connectBlocking();
        return;
    }
    // A name is looked up beforehand: inside the wait the look-up would block without any limit. However long
    // it takes, that says nothing about the event loop.
    m_stillInTime = QDeadlineTimer(QDeadlineTimer::Forever);
    QHostInfo::lookupHost(m_target, this, &TcpDataForwarder::connectToFoundHost);
}

void TcpDataForwarder::connectToFoundHost(const QHostInfo &host)
{
    if (host.error() != QHostInfo::NoError) {
        // What a socket that looks the name up itself reports, and its text, whatever the resolver's reason.
        error(QAbstractSocket::HostNotFoundError);
        giveUpAttempt(QAbstractSocket::HostNotFoundError, QAbstractSocket::tr("Host not found"));
    } else if (const int left = restLeft(); left > 0) { // another output has waited meanwhile
        m_isFound = true;
        tryAgainIn(left);
    } else {
        connectBlocking();
    }
}

void TcpDataForwarder::connectBlocking()
{
    emit LongWait::getInstance()->begins();
    QElapsedTimer wait;
    wait.start();
    m_socket.connectToHost(m_target, tcpPort(m_port));
    const bool isConnected = m_socket.waitForConnected(connectTimeout);
    if (wait.hasExpired(longWait)) {
        rest().sinceWait.start();
        rest().sinceBusy.start();
    }
    if (!isConnected)
        giveUpAttempt(m_socket.error(), m_socket.errorString());
}

void TcpDataForwarder::giveUpAttempt(QAbstractSocket::SocketError socketError, const QString &reason)
{
    qInfo() << "[" << m_target << ":" << m_port << "] " << socketError << " - " << reason;
    setStatus(DataForwarderConfig::Failed);
    m_connected = false;
    tryAgainIn(reconnectDelay);
}

void TcpDataForwarder::connected()
{
    qInfo() << "[" << m_target << ":" << m_port << "] socket connected";
    m_connected = true;
    setStatus(DataForwarderConfig::Working);
}

void TcpDataForwarder::error(QAbstractSocket::SocketError socketError)
{
    qInfo() << "[" << m_target << ":" << m_port << "] : erreur de la socket : " << socketError;
    m_socket.abort(); // close() would first wait to write what the server does not take
    m_connected = false;
    setStatus(DataForwarderConfig::Failed);
    tryAgainIn(reconnectDelay);
}

void TcpDataForwarder::write(const QByteArray &message)
{
    m_socket.write(message);
    m_socket.flush();
}

void TcpDataForwarder::waitUntilWritten()
{
    if (!m_connected || m_socket.bytesToWrite() == 0) // the write may have broken the connection
        return;
    emit LongWait::getInstance()->begins();
    m_socket.waitForBytesWritten(writeTimeout);
}
