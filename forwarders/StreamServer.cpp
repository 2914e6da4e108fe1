#include "forwarders/StreamServer.h"

#include "forwarders/StreamConnection.h"
#include "forwarders/StreamSocket.h"

#include <QDebug>
#include <QFile>
#include <QHostAddress>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int pauseAfterFailure = 2000; // ms

bool meansNoClient(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED;
}

} // namespace

StreamServer::StreamServer(std::function<QByteArray()> greeting) : m_greeting(std::move(greeting))
{
    m_pause.setSingleShot(true);
    m_pause.setInterval(pauseAfterFailure);
    connect(&m_pause, &QTimer::timeout, this, [this] { m_notifier->setEnabled(true); });
}

StreamServer::~StreamServer()
{
    qDeleteAll(m_clients);
    m_notifier.reset();
    if (m_listener == -1)
        return;
    struct stat status = {};
    if (::lstat(m_path.constData(), &status) == 0 && status.st_dev == m_device && status.st_ino == m_inode)
        ::unlink(m_path.constData());
    ::close(m_listener);
}

QString StreamServer::listen(const QString &target, int port)
{
    if (target.startsWith(QLatin1Char('/')))
        m_listener = StreamSocket::listenOnPath(target);
    else if (QHostAddress(target).isNull() || port < 1 || port > 65535)
        return QStringLiteral("neither an absolute path nor an IP address and a port");
    else
        m_listener = StreamSocket::listenOnAddress(target, quint16(port));
    if (m_listener == -1)
        return qt_error_string(errno);
    rememberFile(target);
    m_notifier = std::make_unique<QSocketNotifier>(m_listener, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &StreamServer::acceptClient);
    return {};
}

void StreamServer::rememberFile(const QString &path)
{
    m_path = path.startsWith(QLatin1Char('/')) ? QFile::encodeName(path) : QByteArray();
    struct stat status = {};
    if (::lstat(m_path.constData(), &status) == 0) {
        m_device = status.st_dev;
        m_inode = status.st_ino;
    }
}

void StreamServer::acceptClient()
{
    const int descriptor = StreamSocket::acceptClient(m_listener);
    if (descriptor == -1 && !meansNoClient(errno)) {
        // Without a free descriptor the client goes on waiting, and would be announced again at once.
        qWarning() << "Cannot let a client of the stream in :" << qt_error_string(errno);
        m_notifier->setEnabled(false);
        m_pause.start();
    }
    if (descriptor == -1)
        return;
    if (m_clients.size() >= mostClients) {
        if (!m_turnsAway)
            qInfo() << "The stream has" << mostClients << "clients already, others are turned away";
        m_turnsAway = true;
        ::close(descriptor);
        return;
    }
    auto *client = new StreamConnection(this, descriptor);
    m_clients.append(client);
    connect(client, &StreamConnection::left, this, [this, client] { removeClient(client); });
    client->send(m_greeting());
}

void StreamServer::removeClient(StreamConnection *client)
{
    m_clients.removeOne(client);
    m_turnsAway = false;
    client->deleteLater(); // this may run inside its send()
}

void StreamServer::send(const QByteArray &record)
{
    const QList<StreamConnection *> clients = m_clients; // one that has left is taken out meanwhile
    for (StreamConnection *client : clients)
        client->send(record);
}
