#include "forwarders/ExtendedRawDataForwarder.h"
#include "forwarders/FileDataForwarder.h"
#include "forwarders/RadioModels.h"
#include "forwarders/RawDataForwarder.h"
#include "protocol/ActionCommands.h"
#include "protocol/Notifications.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

#include <QtNetwork>

#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

namespace {

/// An adapter that speaks to one output.
class Speaker : public RecordingLink
{
public:
    explicit Speaker(const DataForwarder &forwarder) : RecordingLink("Équipe 1"_s)
    {
        connect(this, &RecordingLink::dataReceived, &forwarder, &DataForwarder::forward);
        connect(this, &RecordingLink::dataSent, &forwarder, &DataForwarder::forwardSent);
    }
    void hear(const QByteArray &frame)
    {
        emit dataReceived(QSharedPointer<UnsollicitedCommandResponse>::create(nullptr, frame));
    }
    void show(const QString &text)
    {
        emit dataSent(QSharedPointer<DisplayTextCommand>::create(this, text, 5000));
    }
};

const QString localhost = "127.0.0.1"_s;

} // namespace

class TestForwarders : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void radioModels();
    void tcpMessages();
    void tcpServerComesGoesAndComesBack();
    void longWaitsForConnectionsLeaveTimeBetweenThem();
    void fileHoldsEveryLine();
    void filesThatCannotBeWritten();

private:
    int status(int id) const { return m_file.forwarderStatus(id); }

    TestDatabase m_file;
};

void TestForwarders::radioModels()
{
    LogCapture log;
    for (const QString &each : {"3798 ICF-3400 VHF"_s, "2894ABC ICF-4162 UHF"_s, "3063 IC-FR6100 UHF"_s,
             " unknown unknown"_s, "289 unknown unknown"_s}) {
        const QString esn = each.section(u' ', 0, 0);
        QCOMPARE(esn + u' ' + getRadioModel(esn) + u' ' + getRadioBand(esn), each);
    }
    const QString line = "Unknown model :  \"289\""_s;
    QCOMPARE(log.text(), line + u'\n' + line);
}

void TestForwarders::tcpMessages()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const QByteArray binary("*NTF,\0\xff", 7);
    for (const bool isExtended : {false, true}) {
        const int id = m_file.addForwarder("RAW"_s, localhost, server.serverPort());
        const QScopedPointer<DataForwarder> forwarder(isExtended
                ? static_cast<DataForwarder *>(new ExtendedRawDataForwarder(nullptr, id))
                : new RawDataForwarder(nullptr, id));
        Speaker radio(*forwarder);
        radio.hear("lost: not connected yet");

        QTRY_VERIFY(server.hasPendingConnections());
        QTRY_COMPARE(status(id), 3);
        const QScopedPointer<QTcpSocket> client(server.nextPendingConnection());
        m_file.run("UPDATE data_forwarder SET status = 0"_s);
        radio.hear(binary);
        QCOMPARE(status(id), 3);
        radio.show("Hé"_s);
        radio.hear("two");
        const QByteArray expected = isExtended ? "Équipe 1|" + binary + "Équipe 1|*SET,UI,TEXT,HéÉquipe 1|two"
                                               : "\x02" + binary + "\x03\x02*SET,UI,TEXT,Hé\x03\x02two\x03";
        QTRY_COMPARE(client->bytesAvailable(), expected.size());
        QCOMPARE(client->readAll(), expected);
    }
}

void TestForwarders::tcpServerComesGoesAndComesBack()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const quint16 port = server.serverPort();
    server.close();
    const int id = m_file.addForwarder("RAW"_s, localhost, port);
    LogCapture log;
    RawDataForwarder forwarder(nullptr, id);
    Speaker radio(forwarder);

    QTRY_COMPARE(status(id), 4);
    const QString prefix = "[ \"127.0.0.1\" : %1 ]"_s.arg(port);
    QVERIFY(log.text().startsWith(
        prefix + " : erreur de la socket :  QAbstractSocket::ConnectionRefusedError\n"_s));

    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    log.clear();
    QTRY_COMPARE(status(id), 3);
    QCOMPARE(log.text(), prefix + " socket connected"_s);
    QTRY_VERIFY(server.hasPendingConnections());
    delete server.nextPendingConnection();
    QTRY_COMPARE(status(id), 4);
    radio.hear("lost");
    QCOMPARE(status(id), 4);

    QTRY_COMPARE(status(id), 3);
    QTRY_VERIFY(server.hasPendingConnections());
    const QScopedPointer<QTcpSocket> client(server.nextPendingConnection());
    radio.hear("back");
    QTRY_COMPARE(client->bytesAvailable(), 6); // and nothing of what was lost
}

void TestForwarders::longWaitsForConnectionsLeaveTimeBetweenThem()
{
    // A full backlog: the kernel drops what asks for a connection, until the thread below makes room.
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    QVERIFY(::bind(descriptor, generic, size) == 0 && ::listen(descriptor, 0) == 0
        && ::getsockname(descriptor, generic, &size) == 0);
    const quint16 port = ntohs(address.sin_port);
    QTcpSocket filler;
    filler.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(filler.waitForConnected());
    std::thread server([descriptor] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2700)); // the first output waits since 2 s
        for (int accepted = 0; accepted < 3; ++accepted)
            ::accept(descriptor, nullptr, nullptr);
    });

    const int first = m_file.addForwarder("RAW"_s, localhost, port);
    const int second = m_file.addForwarder("ERAW"_s, "localhost"_s, port);
    ExtendedRawDataForwarder extended(nullptr, second); // its name is looked up while the first waits
    RawDataForwarder raw(nullptr, first);
    QVERIFY(QTest::qWaitFor([&] { return status(first) == 3; }, 10000));
    const bool waits = status(second) == 0;
    QElapsedTimer clock;
    clock.start();
    QThread::msleep(2500); // as if a slow computer read meanwhile what the radios said
    QVERIFY(QTest::qWaitFor([&] { return status(second) == 3; }, 10000));
    server.join();
    QVERIFY2(waits && clock.elapsed() > 3500, qPrintable(QString::number(clock.elapsed())));
}

void TestForwarders::fileHoldsEveryLine()
{
    const QString name = "frames.log"_s;
    const int id = m_file.addForwarder("FILE"_s, m_file.writeFile(name, "what an earlier run has left"));
    FileDataForwarder forwarder(nullptr, id);
    QCOMPARE(status(id), 3);
    Speaker radio(forwarder);
    m_file.run("UPDATE data_forwarder SET status = 0"_s);
    radio.hear("*NTF,é\r");
    QCOMPARE(status(id), 3);
    radio.show("Hello"_s);
    radio.hear(QByteArray("A\0B", 3));
    const char expected[] = "READ: \x02*NTF,é\r\x03\nWRITE: \x02*SET,UI,TEXT,Hello\x03\nREAD: \2A\0B\x03\n";
    QCOMPARE(m_file.readFile(name), QByteArray(expected, sizeof expected - 1));
}

void TestForwarders::filesThatCannotBeWritten()
{
    LogCapture log;
    const int id = m_file.addForwarder("FILE"_s, m_file.file("missing/x.log"_s));
    FileDataForwarder nowhere(nullptr, id);
    QCOMPARE(status(id), 4);
    Speaker(nowhere).hear("lost");
    QCOMPARE(status(id), 3);
    QCOMPARE(log.text(), "erreur lors de l'ouverture du fichier de logs"_s);

    // A pipe without a reader would block.
    QCOMPARE(QProcess::execute("mkfifo"_s, {m_file.file("pipe"_s)}), 0);
    const int pipeId = m_file.addForwarder("FILE"_s, m_file.file("pipe"_s));
    FileDataForwarder refused(nullptr, pipeId);
    QCOMPARE(status(pipeId), 4);

    log.clear();
    const int fullId = m_file.addForwarder("FILE"_s, "/dev/full"_s);
    FileDataForwarder full(nullptr, fullId);
    for (const char *frame : {"one", "two"})
        Speaker(full).hear(frame);
    QCOMPARE(status(fullId), 4);
    QCOMPARE(log.text(), "Cannot write to \"/dev/full\" : \"No space left on device\""_s);
}

QTEST_GUILESS_MAIN(TestForwarders)
#include "tst_forwarders.moc"
