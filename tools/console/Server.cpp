#include "tools/console/Server.h"

#include "tools/quillonctl/CommandError.h"

#include <QFile>
#include <QSslKey>
#include <QSslSocket>
#include <QTimer>

#include <algorithm>

namespace {

const size_t maximumConnections = 128;
const int acceptPauseMs = 1000;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw CommandError(QStringLiteral("%1 cannot be read: %2").arg(path, file.errorString()));
    return file.readAll();
}

QSslKey readKey(const QString &path)
{
    const QByteArray pem = contentOf(path);
    for (const QSsl::KeyAlgorithm algorithm : {QSsl::Rsa, QSsl::Ec}) {
        QSslKey key(pem, algorithm);
        if (!key.isNull())
            return key;
    }
    throw CommandError(QStringLiteral("%1 holds no private key without a passphrase").arg(path));
}

} // namespace

Server::Server(QObject *parent) : QTcpServer(parent)
{
    setMaxPendingConnections(int(maximumConnections));
    // Qt stops accepting when the system is out of file descriptors, and would not begin again.
    connect(this, &QTcpServer::acceptError, this,
        [this] { QTimer::singleShot(acceptPauseMs, this, &QTcpServer::resumeAccepting); });
}

void Server::useCertificate(const QString &certificateFile, const QString &keyFile)
{
    const QList<QSslCertificate> chain = QSslCertificate::fromData(contentOf(certificateFile));
    if (chain.isEmpty())
        throw CommandError(QStringLiteral("%1 holds no certificate").arg(certificateFile));
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificateChain(chain);
    configuration.setPrivateKey(readKey(keyFile));
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setProtocol(QSsl::TlsV1_2OrLater);
    m_tls = configuration;
}

void Server::incomingConnection(qintptr descriptor)
{
    makeRoom();
    QTcpSocket *socket = m_tls ? new QSslSocket(this) : new QTcpSocket(this);
    socket->setSocketDescriptor(descriptor);
    auto *connection = new Connection(socket, this);
    m_connections.push_back(connection);
    connect(connection, &Connection::requested, this,
        [this, connection](const Request &request) { emit requested(connection, request); });
    connect(connection, &Connection::finished, connection, &QObject::deleteLater);
    connect(connection, &QObject::destroyed, this, [this, connection] {
        m_connections.erase(
            std::remove(m_connections.begin(), m_connections.end(), connection), m_connections.end());
    });
    if (auto *tls = qobject_cast<QSslSocket *>(socket)) {
        tls->setSslConfiguration(*m_tls);
        tls->startServerEncryption();
    }
}

void Server::makeRoom()
{
    if (m_connections.size() < maximumConnections)
        return;
    const auto slowest = std::find_if(m_connections.begin(), m_connections.end(),
        [](const Connection *connection) { return connection->isReading(); });
    delete (slowest == m_connections.end() ? m_connections.front() : *slowest);
}
