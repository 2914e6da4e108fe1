#include "forwarders/StreamSocket.h"
#include "support/LogCapture.h"
#include "support/StreamTest.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

class TestStream : public StreamTest
{
    Q_OBJECT

private slots:
    void clientsComeAndGo();
    void clientWaitsForADescriptor();
    void aSlowClientIsToldWhatItLost();
    void theSocketFile();
    void occupiedPlaces();
    void tcp();
};

void TestStream::clientsComeAndGo()
{
    Speaker first(*m_output, "ttyUSB0"_s);
    Speaker second(*m_output, "ttyUSB1"_s);
    emit first.radioChanged(RadioLink::Searching);
    emit second.radioChanged(RadioLink::Searching);
    emit second.radioChanged(RadioLink::Identified);
    Speaker gone(*m_output, "ttyUSB2"_s);
    emit gone.radioChanged(RadioLink::Searching);
    emit gone.radioChanged(RadioLink::Stopped);

    std::vector<std::unique_ptr<Listener>> clients;
    for (int i = 0; i < 64; ++i) {
        clients.push_back(std::make_unique<Listener>(m_path));
        QVERIFY(clients.back()->has(3));
    }
    QCOMPARE(clients[63]->text(0, "record"_s), "gateway"_s);
    QCOMPARE(clients[63]->text(1, "port"_s) + clients[63]->text(1, "state"_s), "ttyUSB0searching"_s);
    QCOMPARE(clients[63]->text(2, "port"_s) + clients[63]->text(2, "state"_s), "ttyUSB1identified"_s);
    LogCapture log;
    for (int i = 0; i < 2; ++i) { // one too many, twice
        Listener turnedAway(m_path);
        QTRY_COMPARE(turnedAway.socket().state(), QLocalSocket::UnconnectedState);
    }
    QCOMPARE(log.count("The stream has 64 clients already, others are turned away"_s), 1);

    clients[0]->socket().write(QByteArray(500000, 'x')); // read and dropped
    clients[5].reset();
    QTest::qWait(50);
    QTRY_COMPARE(clients[0]->socket().bytesToWrite(), 0);
    first.hear("one");
    emit gone.radioChanged(RadioLink::Stopped);
    Listener last(m_path);
    QVERIFY(last.has(3));
    first.hear("two");
    for (const auto &client : clients) {
        if (!client)
            continue;
        QVERIFY(client->has(6));
        QCOMPARE(client->text(3, "text"_s) + client->text(4, "state"_s) + client->last("text"_s),
            "onestoppedtwo"_s);
    }
    QVERIFY(last.has(4));
    QCOMPARE(last.last("text"_s), "two"_s);
}

void TestStream::clientWaitsForADescriptor()
{
    const int client = StreamSocket::connectToPath(m_path);
    const int unused = ::dup(client);
    QVERIFY(client != -1 && unused != -1 && ::close(unused) == 0);
    rlimit usual = {};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit exhausted = {rlim_t(unused), usual.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &exhausted), 0);
    LogCapture log;
    QTest::qWait(300);
    ::setrlimit(RLIMIT_NOFILE, &usual);
    QCOMPARE(log.text(), "Cannot let a client of the stream in : \"Too many open files\""_s); // once
    char byte = 0;
    QTRY_COMPARE(::recv(client, &byte, 1, MSG_DONTWAIT), 1);
    ::close(client);
}

void TestStream::aSlowClientIsToldWhatItLost()
{
    Speaker radio(*m_output);
    Listener quick(m_path);
    const int slow = StreamSocket::connectToPath(m_path);
    QVERIFY(quick.has(1) && slow != -1);
    QTest::qWait(50);
    constexpr int sent = 3000;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < sent; ++i) {
        radio.hear(QByteArray::number(i) + QByteArray(1000, ' '));
        if (i % 50 == 0)
            QVERIFY(quick.has(i + 2)); // the other one misses nothing meanwhile
    }
    QVERIFY2(quick.has(1 + sent) && clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));

    radio.hear("short"); // for which there would be room
    QVERIFY(quick.has(2 + sent));
    // The slow one begins to read: an unbroken row, the number of those that are missing, and the rest.
    QByteArray read;
    char part[65536];
    const auto readOn = [&] {
        const ssize_t size = ::read(slow, part, sizeof part);
        if (size > 0)
            read.append(part, int(size));
        return read;
    };
    QTRY_VERIFY(readOn().contains("\"lost\""));
    radio.hear("after");
    QTRY_VERIFY(readOn().contains("after"));
    ::close(slow);
    int next = 0;
    for (const QByteArray &line : read.split('\n').mid(1, -1)) {
        const QJsonObject record = QJsonDocument::fromJson(line).object();
        const QString text = record.value("text"_s).toString().trimmed();
        if (record.value("record"_s).toString() == "lost"_s) {
            QVERIFY2(next > 800, qPrintable(QString::number(next))); // 1 MiB was kept
            next += record.value("count"_s).toInt();
        } else if (text == "after"_s) {
            QCOMPARE(next, sent + 1);
        } else if (!text.isEmpty()) {
            QCOMPARE(text.toInt(), next++);
        }
    }
    QCOMPARE(next, sent + 1);
}

void TestStream::theSocketFile()
{
    struct stat file = {};
    QCOMPARE(::stat(QFile::encodeName(m_path).constData(), &file), 0);
    QVERIFY(S_ISSOCK(file.st_mode) && (file.st_mode & 07777) == 0660);

    LogCapture log;
    const int otherId = m_file.addForwarder("STREAM"_s, m_path);
    StreamDataForwarder other(nullptr, otherId);
    QCOMPARE(m_file.forwarderStatus(otherId), 4); // somebody listens there
    QCOMPARE(log.text(), "Stream cannot listen on \"%1\" : \"Address already in use\""_s.arg(m_path));
    Listener client(m_path);
    QVERIFY(client.has(1));
    m_output.reset();
    QTRY_COMPARE(client.socket().state(), QLocalSocket::UnconnectedState);
    QVERIFY(!QFileInfo::exists(m_path));
    QElapsedTimer clock;
    clock.start();
    QTRY_COMPARE(m_file.forwarderStatus(otherId), 3); // it tries again every 2 s
    QVERIFY(clock.elapsed() < 3500);
    Listener further(m_path);
    QVERIFY(further.has(1));

    QVERIFY(QFile::remove(m_path)); // what lies there now is another's
    m_file.writeFile("stream"_s, "kept");
}

void TestStream::occupiedPlaces()
{
    QCOMPARE(m_file.readFile("stream"_s), QByteArray("kept")); // by the output that ended, and by this one
    QCOMPARE(status(), 4);
    m_output.reset();
    QVERIFY(QFile::remove(m_path));

    // As a daemon that was killed leaves it.
    const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(m_path).constData(), sizeof address.sun_path);
    QCOMPARE(::bind(stale, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ::close(stale);
    offer(m_path);
    QCOMPARE(status(), 3);
    Listener client(m_path);
    QVERIFY(client.has(1));

    const QString folder = m_file.file("later"_s);
    for (const QString &target : {folder + "/stream"_s, "relative"_s, m_path + QString(100, u'x'), ""_s}) {
        LogCapture log;
        offer(target);
        QCOMPARE(status(), 4);
        QCOMPARE(log.count("Stream cannot listen on \"%1\""_s.arg(target)), 1);
        if (target.startsWith(folder)) {
            QVERIFY(QDir().mkdir(folder));
            QTRY_COMPARE(status(), 3);
        }
    }
}

void TestStream::tcp()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const quint16 port = server.serverPort();
    offer("127.0.0.1"_s, port);
    QCOMPARE(status(), 4);
    server.close();
    QTRY_COMPARE(status(), 3);

    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, port);
    QTRY_VERIFY(client.canReadLine());
    QVERIFY(client.readLine().contains("\"gateway\""));
    Speaker radio(*m_output);
    radio.hear("over TCP");
    QTRY_VERIFY(client.canReadLine());
    QVERIFY(client.readLine().contains("over TCP"));
    client.abort();
    QTest::qWait(50);
    const auto command = QSharedPointer<CountedCommand>::create();
    radio.tell(command);
    QCOMPARE(command->asked, 0);
}

QTEST_GUILESS_MAIN(TestStream)
#include "tst_stream.moc"
