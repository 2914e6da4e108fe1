#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QSsl>
#include <QTcpServer>

#include <functional>

class TestCertificates;

/// An HTTP/1.1 server on 127.0.0.1 that records requests and answers as it is told; with certificates it
/// speaks TLS. One request a connection.
class HttpServer : public QTcpServer
{
    Q_OBJECT

public:
    struct Request
    {
        QByteArray method;
        QByteArray path; ///< with its query
        QMap<QByteArray, QByteArray> headers; ///< names in lower case
        QByteArray body;
    };
    struct Answer
    {
        int code = 200; ///< 0: the connection is closed without an answer; -1: it stays open without one
        QByteArray reason = "OK";
        QByteArray body;
    };

    /// Listens at once, on a port of the system's choice unless one is given.
    explicit HttpServer(const TestCertificates *certificates = nullptr, quint16 port = 0);

    QString url() const;
    void setProtocol(QSsl::SslProtocol protocol) { m_protocol = protocol; }

    std::function<Answer(const Request &)> answer = [](const Request &) { return Answer(); };
    QList<Request> requests;

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void readRequest(QTcpSocket *socket);

    const TestCertificates *const m_certificates;
    QSsl::SslProtocol m_protocol = QSsl::TlsV1_3OrLater;
};
