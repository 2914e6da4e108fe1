#include "support/HttpServer.h"

#include "support/TestCertificates.h"

#include <QSslConfiguration>
#include <QSslSocket>

HttpServer::HttpServer(const TestCertificates *certificates, quint16 port) : m_certificates(certificates)
{
    if (!listen(QHostAddress::LocalHost, port))
        qFatal("cannot listen: %s", qPrintable(errorString()));
}

QString HttpServer::url() const
{
    return QStringLiteral("%1://127.0.0.1:%2")
        .arg(m_certificates ? QStringLiteral("https") : QStringLiteral("http"))
        .arg(serverPort());
}

void HttpServer::incomingConnection(qintptr descriptor)
{
    auto *socket = new QSslSocket(this);
    socket->setSocketDescriptor(descriptor);
    connect(socket, &QSslSocket::readyRead, this, [this, socket] { readRequest(socket); });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    if (!m_certificates)
        return;
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setProtocol(m_protocol);
    tls.setLocalCertificate(m_certificates->certificate());
    tls.setPrivateKey(m_certificates->key());
    tls.setPeerVerifyMode(QSslSocket::VerifyNone);
    socket->setSslConfiguration(tls);
    socket->startServerEncryption();
}

void HttpServer::readRequest(QTcpSocket *socket)
{
    QByteArray received = socket->property("received").toByteArray() + socket->readAll();
    socket->setProperty("received", received);
    const int headerEnd = received.indexOf("\r\n\r\n");
    if (headerEnd == -1)
        return;
    QList<QByteArray> lines = received.left(headerEnd).replace("\r\n", "\n").split('\n');
    const QList<QByteArray> start = lines.takeFirst().split(' ');
    Request request{start.value(0), start.value(1), {}, received.mid(headerEnd + 4)};
    for (const QByteArray &line : qAsConst(lines)) {
        const int colon = line.indexOf(':');
        request.headers.insert(line.left(colon).toLower(), line.mid(colon + 1).trimmed());
    }
    if (request.body.size() < request.headers.value("content-length").toInt())
        return;

    requests.append(request);
    const Answer reply = answer(request);
    if (reply.code == -1)
        return;
    if (reply.code != 0) {
        socket->write("HTTP/1.1 " + QByteArray::number(reply.code) + ' ' + reply.reason
            + "\r\nConnection: close\r\nContent-Length: " + QByteArray::number(reply.body.size()) + "\r\n\r\n"
            + reply.body);
    }
    socket->disconnectFromHost();
}
