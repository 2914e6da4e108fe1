#include "config/ConfigDatabase.h"
#include "forwarders/DuosDataForwarder.h"
#include "forwarders/ExtendedRawDataForwarder.h"
#include "forwarders/FileDataForwarder.h"
#include "forwarders/RadioModels.h"
#include "forwarders/RawDataForwarder.h"
#include "protocol/ActionCommands.h"
#include "protocol/Frame.h"
#include "protocol/Notifications.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

namespace {

/// Lets an adapter of its own speak to an output.
void connectTo(const RecordingLink &link, const DataForwarder &forwarder)
{
    QObject::connect(&link, &RecordingLink::dataReceived, &forwarder, &DataForwarder::forward);
    QObject::connect(&link, &RecordingLink::dataSent, &forwarder, &DataForwarder::forwardSent);
}

QSharedPointer<IcomCommandResponse> frame(const QByteArray &data)
{
    return QSharedPointer<UnsollicitedCommandResponse>::create(nullptr, data);
}

QSharedPointer<IcomCommand> displayCommand(RecordingLink *link, const QString &text)
{
    return QSharedPointer<DisplayTextCommand>::create(link, text, 5000);
}

} // namespace

class TestForwarders : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void radioModels_data();
    void radioModels();
    void tcpMessages_data();
    void tcpMessages();
    void tcpServerComesGoesAndComesBack();
    void longWaitsForConnectionsLeaveTimeBetweenThem();
    void fileHoldsEveryLine();
    void fileThatCannotBeOpened();
    void fileOnAFullDisk();
    void duosSendsNothing();

private:
    int status(int id) const
    {
        return m_file.value(QStringLiteral("SELECT status FROM data_forwarder WHERE ids = %1").arg(id))
            .toInt();
    }

    TestDatabase m_file;
};

void TestForwarders::radioModels_data()
{
    QTest::addColumn<QString>("esn");
    QTest::addColumn<QString>("modelAndBand");
    QTest::addColumn<int>("logLines");
    const auto row = [](const char *esn, const char *modelAndBand, int logLines) {
        QTest::newRow(esn) << QString::fromLatin1(esn) << QString::fromLatin1(modelAndBand) << logLines;
    };
    row("3798", "ICF-3400 VHF", 0);
    row("2893", "ICF-3162 VHF", 0);
    row("3401", "ICF-3262 VHF", 0);
    row("2894ABC", "ICF-4162 UHF", 0);
    row("3402", "ICF-4262 UHF", 0);
    row("2979", "ICF-5062 VHF", 0);
    row("2980", "ICF-6062 UHF", 0);
    row("3079", "IC-FR5100 VHF", 0);
    row("3063", "IC-FR6100 UHF", 0);
    row("289", "unknown unknown", 2);
    row(" 2894", "unknown unknown", 2);
    row("", "unknown unknown", 0);
}

void TestForwarders::radioModels()
{
    QFETCH(QString, esn);
    QFETCH(QString, modelAndBand);
    QFETCH(int, logLines);
    LogCapture log;
    QCOMPARE(getRadioModel(esn) + QLatin1Char(' ') + getRadioBand(esn), modelAndBand);
    QCOMPARE(log.count(QStringLiteral("Unknown model :  \"%1\"").arg(esn)), logLines);
}

void TestForwarders::tcpMessages_data()
{
    QTest::addColumn<bool>("isExtended");
    QTest::addColumn<QByteArray>("expected");
    const QByteArray binary("*NTF,\0\xff", 7);
    QTest::newRow("RAW") << false << "\x02" + binary + "\x03\x02*SET,UI,TEXT,Hé\x03\x02two\x03";
    QTest::newRow("ERAW") << true << "Équipe 1|" + binary + "Équipe 1|*SET,UI,TEXT,HéÉquipe 1|two";
}

void TestForwarders::tcpMessages()
{
    QFETCH(bool, isExtended);
    QFETCH(QByteArray, expected);
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const int id =
        m_file.addForwarder(QStringLiteral("RAW"), QStringLiteral("127.0.0.1"), server.serverPort());
    const QScopedPointer<DataForwarder> forwarder(isExtended
            ? static_cast<DataForwarder *>(new ExtendedRawDataForwarder(nullptr, id))
            : new RawDataForwarder(nullptr, id));
    QCOMPARE(status(id), 0);
    RecordingLink link(QStringLiteral("Équipe 1"));
    connectTo(link, *forwarder);
    emit link.dataReceived(frame("lost: not connected yet"));

    QTRY_VERIFY(server.hasPendingConnections());
    QTRY_COMPARE(status(id), 3);
    const QScopedPointer<QTcpSocket> client(server.nextPendingConnection());
    m_file.run(QStringLiteral("UPDATE data_forwarder SET status = 0"));
    emit link.dataReceived(frame(QByteArray("*NTF,\0\xff", 7)));
    QCOMPARE(status(id), 3);
    emit link.dataSent(displayCommand(&link, QStringLiteral("Hé")));
    emit link.dataReceived(frame("two"));
    QByteArray received;
    QTRY_COMPARE((received += client->readAll()), expected);
}

void TestForwarders::tcpServerComesGoesAndComesBack()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const quint16 port = server.serverPort();
    server.close();
    const int id = m_file.addForwarder(QStringLiteral("RAW"), QStringLiteral("127.0.0.1"), port);
    LogCapture log;
    RawDataForwarder forwarder(nullptr, id);
    RecordingLink link;
    connectTo(link, forwarder);

    QTRY_COMPARE(status(id), 4);
    const QString prefix = QStringLiteral("[ \"127.0.0.1\" : %1 ]").arg(port);
    QCOMPARE(log.texts(QtInfoMsg),
        (QStringList{
            prefix + QStringLiteral(" : erreur de la socket :  QAbstractSocket::ConnectionRefusedError"),
            prefix
                + QStringLiteral("  QAbstractSocket::ConnectionRefusedError  -  \"Connection refused\"")}));

    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    log.clear();
    QTRY_COMPARE(status(id), 3);
    QCOMPARE(log.texts(), QStringList(prefix + QStringLiteral(" socket connected")));
    QTRY_VERIFY(server.hasPendingConnections());
    delete server.nextPendingConnection();
    QTRY_COMPARE(status(id), 4);
    QVERIFY(log.texts().last().endsWith(
        QStringLiteral("erreur de la socket :  QAbstractSocket::RemoteHostClosedError")));
    emit link.dataReceived(frame("lost"));
    QCOMPARE(status(id), 4);

    QTRY_COMPARE(status(id), 3);
    QTRY_VERIFY(server.hasPendingConnections());
    const QScopedPointer<QTcpSocket> client(server.nextPendingConnection());
    emit link.dataReceived(frame("back"));
    QTRY_COMPARE(client->bytesAvailable(), 6);
    QCOMPARE(client->readAll(), Frame::wrapped("back"));
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
    QTcpSocket filler;
    filler.connectToHost(QHostAddress::LocalHost, ntohs(address.sin_port));
    QVERIFY(filler.waitForConnected());
    std::thread server([descriptor] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2700)); // the first output waits since 2 s
        for (int accepted = 0; accepted < 3; ++accepted)
            ::accept(descriptor, nullptr, nullptr);
    });

    const QString host = QStringLiteral("127.0.0.1");
    const int first = m_file.addForwarder(QStringLiteral("RAW"), host, ntohs(address.sin_port));
    const int second = m_file.addForwarder(QStringLiteral("ERAW"), host, ntohs(address.sin_port));
    RawDataForwarder raw(nullptr, first);
    ExtendedRawDataForwarder extended(nullptr, second);
    QVERIFY(QTest::qWaitFor([&] { return status(first) == 3; }, 10000));
    const bool waits = status(second) == 0;
    QElapsedTimer clock;
    clock.start();
    QVERIFY(QTest::qWaitFor([&] { return status(second) == 3; }, 10000));
    server.join();
    QVERIFY2(waits && clock.elapsed() > 1000, qPrintable(QString::number(clock.elapsed())));
}

void TestForwarders::fileHoldsEveryLine()
{
    QFile file(m_file.folder() + QStringLiteral("/frames.log"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("what an earlier run has left");
    file.close();
    const int id = m_file.addForwarder(QStringLiteral("FILE"), file.fileName());
    FileDataForwarder forwarder(nullptr, id);
    QCOMPARE(status(id), 3);
    QCOMPARE(file.size(), 0);

    RecordingLink link;
    connectTo(link, forwarder);
    m_file.run(QStringLiteral("UPDATE data_forwarder SET status = 0"));
    emit link.dataReceived(frame("*NTF,é\r"));
    QCOMPARE(status(id), 3);
    emit link.dataSent(displayCommand(&link, QStringLiteral("Hello")));
    emit link.dataReceived(frame(QByteArray("a\0b", 3)));
    QVERIFY(file.open(QIODevice::ReadOnly)); // while the output still has it open
    QCOMPARE(file.readAll(),
        "READ: \x02*NTF,é\r\x03\nWRITE: \x02*SET,UI,TEXT,Hello\x03\n"
            + QByteArray("READ: \x02"
                         "a\0b\x03\n",
                12));
}

void TestForwarders::fileThatCannotBeOpened()
{
    const int id =
        m_file.addForwarder(QStringLiteral("FILE"), m_file.folder() + QStringLiteral("/missing/x.log"));
    LogCapture log;
    FileDataForwarder forwarder(nullptr, id);
    QCOMPARE(status(id), 4);
    RecordingLink link;
    connectTo(link, forwarder);
    emit link.dataReceived(frame("lost"));
    QCOMPARE(status(id), 3);
    QCOMPARE(log.texts(), QStringList(QStringLiteral("erreur lors de l'ouverture du fichier de logs")));

    // A pipe without a reader would block.
    const QString pipe = m_file.folder() + QStringLiteral("/pipe");
    QCOMPARE(QProcess::execute(QStringLiteral("mkfifo"), {pipe}), 0);
    const int pipeId = m_file.addForwarder(QStringLiteral("FILE"), pipe);
    FileDataForwarder refused(nullptr, pipeId);
    QCOMPARE(status(pipeId), 4);
}

void TestForwarders::fileOnAFullDisk()
{
    const int id = m_file.addForwarder(QStringLiteral("FILE"), QStringLiteral("/dev/full"));
    LogCapture log;
    FileDataForwarder forwarder(nullptr, id);
    RecordingLink link;
    connectTo(link, forwarder);
    emit link.dataReceived(frame("one"));
    emit link.dataReceived(frame("two"));
    QCOMPARE(status(id), 4);
    QCOMPARE(log.texts(),
        QStringList(QStringLiteral("Cannot write to \"/dev/full\" : \"No space left on device\"")));
}

void TestForwarders::duosSendsNothing()
{
    const int id = m_file.addForwarder(QStringLiteral("DUOS"), QStringLiteral("nowhere"), 1);
    DuosDataForwarder forwarder(nullptr, id);
    QCOMPARE(status(id), 3);
    RecordingLink link;
    connectTo(link, forwarder);
    emit link.dataReceived(frame("one"));
    emit link.dataSent(displayCommand(&link, QStringLiteral("two")));
    QCOMPARE(status(id), 3);
}

QTEST_GUILESS_MAIN(TestForwarders)
#include "tst_forwarders.moc"
