#pragma once

#include "support/OpenSsl.h"
#include "support/TestDatabase.h"

#include <memory>

/// A connection to the console and what it has answered so far.
class ConsoleClient
{
public:
    explicit ConsoleClient(quint16 port, const QHostAddress &from = QHostAddress(QHostAddress::LocalHost))
        : m_socket(std::make_unique<QTcpSocket>())
    {
        m_socket->bind(from);
        m_socket->connectToHost(QHostAddress::LocalHost, port);
        m_socket->waitForConnected();
    }
    ConsoleClient(quint16 port, const TestCertificates &) : m_socket(std::make_unique<QSslSocket>())
    {
        auto *tls = static_cast<QSslSocket *>(m_socket.get());
        tls->connectToHostEncrypted("127.0.0.1"_s, port);
        tls->waitForEncrypted();
    }

    ConsoleClient &send(const QByteArray &bytes)
    {
        m_socket->write(bytes);
        m_socket->flush();
        return *this;
    }
    /// Everything up to the end of the connection.
    QByteArray answer(int timeoutMs = 10000)
    {
        const bool ended = QTest::qWaitFor(
            [&] {
                m_received += m_socket->readAll();
                return m_socket->state() != QAbstractSocket::ConnectedState;
            },
            timeoutMs);
        if (!ended)
            qDebug("the connection is still open");
        return m_received += m_socket->readAll();
    }
    bool waitFor(const QByteArray &part, int timeoutMs = 5000)
    {
        return QTest::qWaitFor([&] { return (m_received += m_socket->readAll()).contains(part); }, timeoutMs);
    }
    void readSlowly() { m_socket->setReadBufferSize(1); }
    void readFast() { m_socket->setReadBufferSize(0); }
    QByteArray received() const { return m_received; }
    bool isOpen() { return m_socket->state() == QAbstractSocket::ConnectedState; }

private:
    std::unique_ptr<QTcpSocket> m_socket;
    QByteArray m_received;
};

inline int statusOf(const QByteArray &answer)
{
    return answer.mid(9, 3).toInt();
}

inline QJsonObject bodyOf(const QByteArray &answer)
{
    return QJsonDocument::fromJson(answer.mid(answer.indexOf("\r\n\r\n") + 4)).object();
}

inline QByteArray post(const QByteArray &path, const QByteArray &body, const QByteArray &headers = {})
{
    return "POST " + path + " HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n" + headers
        + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

inline QByteArray get(const QByteArray &path, const QByteArray &headers = {})
{
    return "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n";
}

/// What the console's tests share: the built console, on a database of its own with one radio, and requests
/// to it.
class ConsoleTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m_file = std::make_unique<TestDatabase>();
        FreshDatabase made(m_file->path());
        m_file->run("UPDATE data_forwarder SET enabled = 0"_s);
        m_file->addRadio("ttyUSB0"_s, "Van <b>"_s);
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost);
        m_port = probe.serverPort();
    }
    void cleanup()
    {
        if (!m_console)
            return;
        m_console->terminate();
        QVERIFY(m_console->waitForFinished());
        QCOMPARE(m_console->exitCode(), 0); // a sanitizer's finding has another one
        m_console.reset();
    }

protected:
    void start(const QStringList &options = {}, const QString &folder = QUILLON_BIN_DIR ""_s)
    {
        m_console = std::make_unique<QProcess>();
        m_console->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_console->start(folder + "/quillon-console"_s,
            QStringList{"-c"_s, m_file->path(), "--listen"_s, "127.0.0.1:%1"_s.arg(m_port)} + options);
        QVERIFY(m_console->waitForReadyRead());
    }
    QByteArray ask(const QByteArray &request) const { return ConsoleClient(m_port).send(request).answer(); }
    /// Runs quillonctl on the database, with words of the shell; what it prints.
    QByteArray control(const QString &words) const
    {
        return runShell(QUILLON_BIN_DIR "/quillonctl -c %1 2>&1 "_s.arg(m_file->path()) + words);
    }

    std::unique_ptr<TestDatabase> m_file;
    std::unique_ptr<QProcess> m_console;
    quint16 m_port = 0;
};
