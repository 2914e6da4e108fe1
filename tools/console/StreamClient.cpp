#include "tools/console/StreamClient.h"

#include <QJsonDocument>
#include <QLocalSocket>
#include <QTcpSocket>

namespace {

const int retryMs = 2000;
/// Longer than any record: a frame of 64 KiB as text, escaped, and as base64.
const int maximumLine = 1024 * 1024;

} // namespace

StreamClient::StreamClient(QObject *parent) : QObject(parent)
{
    m_retry.setSingleShot(true);
    m_retry.setInterval(retryMs);
    connect(&m_retry, &QTimer::timeout, this, &StreamClient::join);
}

StreamClient::~StreamClient()
{
    if (m_socket)
        m_socket->disconnect(this);
}

void StreamClient::setTarget(const StreamTarget &target)
{
    if (target.text() == m_target.text())
        return;
    m_target = target;
    leave();
    m_retry.stop();
    join();
}

void StreamClient::join()
{
    if (m_target.path.isEmpty() && m_target.server.host.isEmpty())
        return;
    m_retry.start(); // goes on unless it is joined by then
    if (!m_target.path.isEmpty()) {
        auto socket = std::make_unique<QLocalSocket>();
        connect(socket.get(), &QLocalSocket::connected, this, &StreamClient::handleJoined);
        connect(socket.get(), &QLocalSocket::disconnected, this, &StreamClient::leave);
        connect(socket.get(), &QLocalSocket::readyRead, this, &StreamClient::read);
        QLocalSocket *local = socket.get();
        m_socket = std::move(socket);
        local->connectToServer(m_target.path, QIODevice::ReadOnly);
    } else {
        auto socket = std::make_unique<QTcpSocket>();
        connect(socket.get(), &QTcpSocket::connected, this, &StreamClient::handleJoined);
        connect(socket.get(), &QTcpSocket::disconnected, this, &StreamClient::leave);
        connect(socket.get(), &QTcpSocket::readyRead, this, &StreamClient::read);
        QTcpSocket *tcp = socket.get();
        m_socket = std::move(socket);
        tcp->connectToHost(m_target.server.host, quint16(m_target.server.port));
    }
}

void StreamClient::handleJoined()
{
    m_retry.stop();
    m_joined = true;
    emit joined();
}

/// May run inside a signal of the socket, which therefore goes later.
void StreamClient::leave()
{
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket.release()->deleteLater();
    }
    m_buffer.clear();
    m_skipping = false;
    m_retry.start();
    if (!m_joined)
        return;
    m_joined = false;
    emit lost();
}

void StreamClient::read()
{
    m_buffer += m_socket->readAll();
    int begin = 0;
    for (int end = m_buffer.indexOf('\n'); end >= 0; end = m_buffer.indexOf('\n', begin)) {
        const QByteArray line = m_buffer.mid(begin, end - begin);
        begin = end + 1;
        const QJsonObject record = QJsonDocument::fromJson(line).object();
        if (!m_skipping && !record.isEmpty())
            emit received(line, record);
        m_skipping = false;
    }
    m_buffer.remove(0, begin);
    if (m_buffer.size() > maximumLine) {
        m_buffer.clear();
        m_skipping = true;
    }
}
