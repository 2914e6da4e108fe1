#include "tools/console/Connection.h"

#include "tools/console/SocketQueue.h"

#include <sys/socket.h>

namespace {

const int requestPatienceMs = 5000;
const int answerPatienceMs = 15000;
const int lingerMs = 1000;

} // namespace

Connection::Connection(QTcpSocket *socket, QObject *parent)
    : QObject(parent), m_socket(socket), m_reader(std::make_unique<RequestReader>())
{
    m_socket->setParent(this);
    m_socket->setReadBufferSize(16384);
    connect(m_socket, &QTcpSocket::readyRead, this, &Connection::read);
    if (const auto *tls =
            qobject_cast<QSslSocket *>(m_socket)) // its bytesWritten comes before they are queued
        connect(tls, &QSslSocket::encryptedBytesWritten, this, &Connection::closeAfterAnswer);
    else
        connect(m_socket, &QTcpSocket::bytesWritten, this, &Connection::closeAfterAnswer);
    connect(m_socket, &QTcpSocket::disconnected, this, &Connection::finish);
    connect(m_socket, &QTcpSocket::errorOccurred, this, &Connection::finish);
    m_patience.setSingleShot(true);
    connect(&m_patience, &QTimer::timeout, this, &Connection::giveUp);
    m_patience.start(requestPatienceMs);
}

void Connection::read()
{
    const QByteArray bytes = m_socket->readAll();
    if (!m_reader)
        return;
    const RequestReader::State state = m_reader->feed(bytes);
    if (state == RequestReader::Reading)
        return;
    const std::unique_ptr<RequestReader> reader = std::move(m_reader);
    m_patience.stop();
    if (state == RequestReader::Refused) {
        answer(
            Reply::error(reader->refusal(), QStringLiteral("the request cannot be read, or is too large")));
        return;
    }
    Request request = reader->request();
    request.client = m_socket->peerAddress();
    const auto *tls = qobject_cast<QSslSocket *>(m_socket);
    request.encrypted = tls && tls->isEncrypted();
    m_withBody = request.method != "HEAD";
    emit requested(request);
}

void Connection::answer(const Reply &reply)
{
    if (m_finished || m_answered)
        return;
    m_answered = true;
    m_patience.start(answerPatienceMs);
    m_socket->write(reply.message(m_withBody));
}

QTcpSocket *Connection::release()
{
    m_finished = true;
    m_patience.stop();
    m_socket->disconnect(this);
    return m_socket;
}

void Connection::giveUp()
{
    const auto *tls = qobject_cast<QSslSocket *>(m_socket);
    if (m_answered || (tls && !tls->isEncrypted())) {
        m_socket->abort();
        finish();
        return;
    }
    m_reader.reset();
    answer(Reply::error(408, QStringLiteral("the request took longer than 5 seconds")));
}

/// A client that is still sending would lose the answer if the socket were closed at once.
void Connection::closeAfterAnswer()
{
    if (!m_answered)
        return;
    m_patience.start(answerPatienceMs); // there is progress
    if (waitingOf(*m_socket) > 0)
        return;
    if (qobject_cast<QSslSocket *>(m_socket)) {
        m_socket->disconnectFromHost();
        return;
    }
    shutdown(int(m_socket->socketDescriptor()), SHUT_WR);
    m_patience.start(lingerMs);
}

void Connection::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    m_patience.stop();
    emit finished();
}
