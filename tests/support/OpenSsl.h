#pragma once

#include "support/Literals.h"

#include <QtNetwork>

/// Runs lines of the shell in a folder; what they print on standard output.
inline QByteArray runShell(const QString &lines, const QString &folder = "."_s)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start("sh"_s, {"-ec"_s, lines});
    process.waitForFinished();
    return process.readAllStandardOutput();
}

/// A service account of project "proj" with an RSA key made for this run.
struct TestCredential
{
    QJsonObject document(const QString &tokenUri) const
    {
        return {{"project_id"_s, "proj"_s}, {"private_key_id"_s, "key-1"_s},
            {"private_key"_s, QString::fromLatin1(privateKey)}, {"client_email"_s, "robot@example.org"_s},
            {"token_uri"_s, tokenUri}};
    }
    /// The document as the secret column holds it.
    QString secret(const QString &tokenUri) const
    {
        return QString::fromLatin1(QJsonDocument(document(tokenUri)).toJson().toBase64());
    }

    const QByteArray privateKey =
        runShell("openssl genpkey -quiet -algorithm RSA"_s); ///< PEM, PKCS#8, 2,048 bits
};

/// A certificate authority made for this run and added to this process's default TLS configuration, and a
/// certificate of it for 127.0.0.1.
class TestCertificates
{
public:
    TestCertificates()
    {
        runShell("new='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2'\n"
                 "openssl req -x509 $new -keyout ca.key -out ca.pem -subj '/CN=Test authority'\n"
                 "openssl req -x509 $new -keyout key.pem -out cert.pem -subj '/CN=127.0.0.1' -CA ca.pem"
                 " -CAkey ca.key -addext 'subjectAltName=IP:127.0.0.1' -addext 'basicConstraints=CA:FALSE'"_s,
            m_folder.path());
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.setCaCertificates(QSslCertificate::fromPath(m_folder.filePath("ca.pem"_s)));
        QSslConfiguration::setDefaultConfiguration(tls);
    }

    /// The path of "cert.pem" or "key.pem".
    QString file(const QString &name) const { return m_folder.filePath(name); }
    /// Makes a socket the server's end of a TLS connection.
    void encrypt(QSslSocket *socket, QSsl::SslProtocol protocol) const
    {
        socket->setProtocol(protocol);
        socket->setLocalCertificate(m_folder.filePath("cert.pem"_s));
        socket->setPrivateKey(m_folder.filePath("key.pem"_s), QSsl::Ec);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        socket->startServerEncryption();
    }

private:
    QTemporaryDir m_folder;
};
