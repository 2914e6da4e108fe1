#include "tools/console/Server.h"

#include "tools/quillonctl/CommandError.h"

#include <QFile>
#include <QLibrary>
#include <QSslKey>
#include <QSslSocket>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <openssl/err.h>
#include <openssl/x509.h>

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

/// A function of the libcrypto that Qt loads for TLS. The console does not link it: it takes more than a
/// megabyte, and without TLS nothing else needs it.
template <typename Function>
Function *inLibcrypto(const char *name)
{
    const auto function = reinterpret_cast<Function *>(QLibrary::resolve(QStringLiteral("crypto"), 3, name));
    if (function == nullptr)
        throw CommandError(QStringLiteral("TLS needs OpenSSL 3, which cannot be loaded"));
    return function;
}

/// Qt would take any key, and refuse every client.
bool belongTogether(const QSslCertificate &certificate, const QSslKey &key)
{
    const auto readPrivateKey = inLibcrypto<decltype(d2i_AutoPrivateKey)>("d2i_AutoPrivateKey");
    const auto freeKey = inLibcrypto<decltype(EVP_PKEY_free)>("EVP_PKEY_free");
    const auto check = inLibcrypto<decltype(X509_check_private_key)>("X509_check_private_key");
    const auto clearErrors = inLibcrypto<decltype(ERR_clear_error)>("ERR_clear_error");
    const QByteArray der = key.toDer();
    auto *bytes = reinterpret_cast<const unsigned char *>(der.constData());
    const std::unique_ptr<EVP_PKEY, decltype(freeKey)> parsed(
        readPrivateKey(nullptr, &bytes, der.size()), freeKey);
    const bool matches = parsed && check(static_cast<X509 *>(certificate.handle()), parsed.get()) == 1;
    clearErrors(); // the queue is shared with the TLS of this thread
    return matches;
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
    const QSslKey key = readKey(keyFile);
    if (!belongTogether(chain.first(), key))
        throw CommandError(QStringLiteral("the key in %1 is not that of the certificate in %2")
                               .arg(keyFile, certificateFile));
    configuration.setLocalCertificateChain(chain);
    configuration.setPrivateKey(key);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setProtocol(QSsl::TlsV1_2OrLater);
    m_tls = configuration;
}

void Server::incomingConnection(qintptr descriptor)
{
    if (m_connections.size() >= maximumConnections)
        delete m_connections.front();
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
