#pragma once

#include "support/OpenSsl.h"

#include <functional>

/// An HTTP/1.1 server on 127.0.0.1 that records requests and answers as it is told; with certificates it
/// speaks TLS. One request a connection.
class HttpServer : public QTcpServer
{
public:
    struct Request
    {
        QByteArray path; ///< with its query
        QMap<QByteArray, QByteArray> headers; ///< names in lower case
        QByteArray body;
    };
    struct Answer
    {
        int code = 200; ///< 0: the connection is closed without an answer; -1: it stays open without one
        QByteArray body = {};
        QByteArray reason = "OK";
        int missing = 0; ///< bytes that the body lacks; the connection stays open as if they came
        int delay = 0; ///< in ms, before the header and again before the body
        QByteArray headers = {}; ///< further ones, each with its line end
    };

    explicit HttpServer(const TestCertificates *certificates = nullptr) : m_certificates(certificates)
    {
        if (!listen(QHostAddress::LocalHost))
            qFatal("cannot listen: %s", qPrintable(errorString()));
    }

    QString url(const QString &path = {}) const
    {
        return "%1://127.0.0.1:%2%3"_s.arg(m_certificates ? "https"_s : "http"_s).arg(serverPort()).arg(path);
    }
    QList<Request> requestsTo(const QByteArray &path) const
    {
        QList<Request> result;
        std::copy_if(requests.begin(), requests.end(), std::back_inserter(result),
            [&](const Request &request) { return request.path == path; });
        return result;
    }

    QSsl::SslProtocol protocol = QSsl::TlsV1_3OrLater;
    std::function<Answer(const Request &)> respond; ///< in place of what follows, where there is one
    QMap<QByteArray, Answer> answers; ///< by path
    Answer otherAnswer; ///< for every other path
    QList<Request> requests;

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto *socket = new QSslSocket(this);
        socket->setSocketDescriptor(descriptor);
        connect(socket, &QSslSocket::readyRead, this, [this, socket] { readRequest(socket); });
        connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
        if (m_certificates)
            m_certificates->encrypt(socket, protocol);
    }

private:
    void readRequest(QTcpSocket *socket)
    {
        const QByteArray received = socket->property("received").toByteArray() + socket->readAll();
        socket->setProperty("received", received);
        const int headerEnd = received.indexOf("\r\n\r\n");
        if (headerEnd == -1)
            return;
        QList<QByteArray> lines = received.left(headerEnd).replace("\r\n", "\n").split('\n');
        const QList<QByteArray> start = lines.takeFirst().split(' ');
        Request request{start.value(1), {}, received.mid(headerEnd + 4)};
        for (const QByteArray &line : qAsConst(lines)) {
            const int colon = line.indexOf(':');
            request.headers.insert(line.left(colon).toLower(), line.mid(colon + 1).trimmed());
        }
        if (request.body.size() < request.headers.value("content-length").toInt())
            return;
        requests.append(request);
        write(socket, respond ? respond(request) : answers.value(request.path, otherAnswer));
    }

    static void write(QTcpSocket *socket, const Answer &answer)
    {
        if (answer.code == -1)
            return;
        if (answer.code != 0) {
            const QByteArray header = "HTTP/1.1 " + QByteArray::number(answer.code) + ' ' + answer.reason
                + "\r\nConnection: close\r\n" + answer.headers
                + "Content-Length: " + QByteArray::number(answer.body.size() + answer.missing) + "\r\n\r\n";
            QTimer::singleShot(answer.delay, socket, [socket, header] { socket->write(header); });
        }
        QTimer::singleShot(2 * answer.delay, socket, [socket, answer] {
            socket->write(answer.body);
            if (answer.missing == 0)
                socket->disconnectFromHost();
        });
    }

    const TestCertificates *const m_certificates;
};
