#include "forwarders/ExtendedRawDataForwarder.h"
#include "forwarders/FileDataForwarder.h"
#include "forwarders/LongWait.h"
#include "forwarders/RadioModels.h"
#include "forwarders/RawDataForwarder.h"
#include "protocol/ActionCommands.h"
#include "protocol/Notifications.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

#include <QSignalSpy>
#include <QtNetwork>

#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>

namespace {

/// A row of data_forwarder that was left failed, its output and an adapter that speaks to it.
template <typename Forwarder>
class Output : public RecordingLink
{
public:
    explicit Output(const TestDatabase &file, const QString &target, int port = 0)
        : RecordingLink("Équipe 1"_s), m_file(file), m_id(file.addForwarder("?"_s, target, port))
    {
        setStatus(4);
        m_forwarder.reset(new Forwarder(nullptr, m_id));
        connect(this, &RecordingLink::dataReceived, m_forwarder.data(), &Forwarder::forward);
        connect(this, &RecordingLink::dataSent, m_forwarder.data(), &Forwarder::forwardSent);
    }
    void hear(const QByteArray &frame)
    {
        emit dataReceived(QSharedPointer<UnsollicitedCommandResponse>::create(nullptr, frame));
    }
    void show(const QString &text)
    {
        emit dataSent(QSharedPointer<DisplayTextCommand>::create(this, text, 5000));
    }
    int status() const { return m_file.forwarderStatus(m_id); }
    void setStatus(int status)
    {
        m_file.run("UPDATE data_forwarder SET status = ? WHERE ids = ?"_s, {status, m_id});
    }

private:
    const TestDatabase &m_file;
    const int m_id;
    QScopedPointer<Forwarder> m_forwarder;
};
using RawOutput = Output<RawDataForwarder>;
using FileOutput = Output<FileDataForwarder>;

const QString localhost = "127.0.0.1"_s;
const QByteArray binary("*NTF,\0\xff", 7);

template <typename Forwarder>
void checkMessages(Output<Forwarder> *output, QTcpServer *from, const QByteArray &expected)
{
    output->setStatus(0);
    output->hear(binary);
    QCOMPARE(output->status(), 3);
    output->show("Hé"_s);
    output->hear("two");
    QTRY_VERIFY(from->hasPendingConnections());
    const QScopedPointer<QTcpSocket> client(from->nextPendingConnection());
    QTRY_COMPARE(client->bytesAvailable(), expected.size());
    QCOMPARE(client->readAll(), expected);
}

} // namespace

/// In front of the C library's: the resolver is slow to find some names.
extern "C" int getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **found)
{
    static const auto next = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    const bool isSlow = qstrncmp(name, "slow", 4) == 0;
    QThread::msleep(isSlow ? 1000 : 0);
    return next(isSlow ? "localhost" : name, service, hints, found);
}

class TestForwarders : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void radioModels();
    void unreachableTcpTargets();
    void tcpServerComesGoesAndComesBack();
    void longWaitsForConnectionsLeaveTimeBetweenThem();
    void fileHoldsEveryLine();
    void filesThatCannotBeWritten();
    void pipesNeverBlock();

private:
    TestDatabase m_file;
};

void TestForwarders::radioModels()
{
    LogCapture log;
    for (const QString &each : {"3798 ICF-3400 VHF"_s, "2893 ICF-3162 VHF"_s, "3401 ICF-3262 VHF"_s,
             "2894ABC ICF-4162 UHF"_s, "3402 ICF-4262 UHF"_s, "2979 ICF-5062 VHF"_s, "2980 ICF-6062 UHF"_s,
             "3079 IC-FR5100 VHF"_s, "3063 IC-FR6100 UHF"_s, " unknown unknown"_s, "289 unknown unknown"_s}) {
        const QString esn = each.section(u' ', 0, 0);
        QCOMPARE(esn + u' ' + getRadioModel(esn) + u' ' + getRadioBand(esn), each);
    }
    const QString line = "Unknown model :  \"289\""_s;
    QCOMPARE(log.text(), line + u'\n' + line);
}

void TestForwarders::unreachableTcpTargets()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    // Ports beyond the range, which must not end up at the server; no name that needs a resolver.
    const QPair<QString, int> targets[] = {{localhost, 65536 + server.serverPort()},
        {localhost, server.serverPort() - 65536}, {"no host"_s, 9}, {""_s, 9}};
    LogCapture log;
    std::vector<std::unique_ptr<RawOutput>> outputs;
    for (const auto &[host, port] : targets)
        outputs.push_back(std::make_unique<RawOutput>(m_file, host, port));
    for (const auto &[host, port] : targets) {
        const bool isFound = host == localhost;
        const QString lines = "[ \"%1\" : %2 ] : erreur de la socket :  QAbstractSocket::%3Error\n"
                              "[ \"%1\" : %2 ]  QAbstractSocket::%3Error  -  \"%4\"\n"_s.arg(host)
                                  .arg(port)
                                  .arg(isFound ? "ConnectionRefused"_s : "HostNotFound"_s)
                                  .arg(isFound ? "Connection refused"_s : "Host not found"_s);
        QTRY_VERIFY2((log.text() + u'\n').contains(lines), qPrintable(log.text()));
    }
    QVERIFY(std::all_of(outputs.begin(), outputs.end(), [](auto &output) { return output->status() == 4; }));
    QTRY_VERIFY(log.count("\"no host\""_s) > 2); // it is looked up again
    QVERIFY(!server.hasPendingConnections());
}

void TestForwarders::tcpServerComesGoesAndComesBack()
{
    QTcpServer server;
    QTcpServer other;
    QVERIFY(server.listen(QHostAddress::LocalHost) && other.listen(QHostAddress::LocalHost));
    const quint16 port = server.serverPort();
    server.close();
    QElapsedTimer clock;
    clock.start();
    RawOutput raw(m_file, localhost, port);
    Output<ExtendedRawDataForwarder> extended(m_file, localhost, other.serverPort());
    QCOMPARE(raw.status(), 0);
    QTRY_COMPARE(raw.status(), 4);
    QVERIFY2(clock.restart() >= 1900, "the first attempt comes 2 s after the start");
    QTRY_COMPARE(extended.status(), 3);
    raw.hear("lost");
    raw.show("Lost"_s);
    QCOMPARE(raw.status(), 4);

    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    LogCapture log;
    QTRY_COMPARE(raw.status(), 3);
    const qint64 pause = clock.elapsed();
    QVERIFY2(pause >= 1900 && pause < 4500, qPrintable(QString::number(pause)));
    QCOMPARE(log.text(), "[ \"127.0.0.1\" : %1 ] socket connected"_s.arg(port));

    log.clear();
    checkMessages(&raw, &server, "\x02" + binary + "\x03\x02*SET,UI,TEXT,Hé\x03\x02two\x03");
    QTRY_COMPARE(raw.status(), 4); // its connection has ended with the check
    QVERIFY(log.text().endsWith(" : erreur de la socket :  QAbstractSocket::RemoteHostClosedError"_s));
    checkMessages(&extended, &other, "Équipe 1|" + binary + "Équipe 1|*SET,UI,TEXT,HéÉquipe 1|two");

    raw.hear("lost");
    QCOMPARE(raw.status(), 4);
    QTRY_COMPARE(raw.status(), 3);
    QTRY_VERIFY(server.hasPendingConnections());
    const QScopedPointer<QTcpSocket> client(server.nextPendingConnection());
    raw.hear("back");
    QTRY_COMPARE(client->bytesAvailable(), 6); // and nothing of what was lost

    const QSignalSpy longWaits(LongWait::getInstance(), &LongWait::begins);
    std::thread reader([descriptor = int(client->socketDescriptor())] {
        QByteArray taken(1 << 20, 0);
        for (int i = 0; i < 100; ++i) { // begins late, and goes on for a second
            QThread::msleep(i == 0 ? 300 : 10);
            ::recv(descriptor, taken.data(), size_t(taken.size()), MSG_DONTWAIT);
        }
    });
    clock.start();
    raw.hear(QByteArray(16 << 20, 'x'));
    QVERIFY2(clock.elapsed() >= 250, "it waits until the system takes some more");
    reader.join();
    QCOMPARE(longWaits.count(), 1);
}

void TestForwarders::longWaitsForConnectionsLeaveTimeBetweenThem()
{
    // A full backlog: the kernel drops what asks for a connection, until the thread below makes room.
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    server.pauseAccepting();
    const int descriptor = int(server.socketDescriptor());
    QVERIFY(::listen(descriptor, 0) == 0 && ::fcntl(descriptor, F_SETFL, 0) == 0); // accept() waits
    QTcpSocket filler;
    filler.connectToHost(QHostAddress::LocalHost, server.serverPort());
    QVERIFY(filler.waitForConnected());
    std::thread acceptance([descriptor] {
        QThread::msleep(2700); // the first output waits since 2 s
        for (int accepted = 0; accepted < 4; ++accepted)
            ::accept(descriptor, nullptr, nullptr);
    });

    // Its name is looked up while the first one waits.
    const Output<ExtendedRawDataForwarder> second(m_file, "slow1"_s, server.serverPort());
    const QSignalSpy longWaits(LongWait::getInstance(), &LongWait::begins);
    const RawOutput first(m_file, localhost, server.serverPort());
    QVERIFY(QTest::qWaitFor([&] { return first.status() == 3; }, 10000));
    const bool isAnnounced = longWaits.count() == 1;
    QTest::qWait(200); // for the look-up
    const bool waits = isAnnounced && second.status() == 0;
    QElapsedTimer clock;
    clock.start();
    QThread::msleep(2000); // as if a slow computer read meanwhile what the radios said
    QVERIFY(QTest::qWaitFor([&] { return second.status() == 3; }, 10000));
    const qint64 rest = clock.restart();
    QVERIFY2(waits && rest > 3300 && rest < 6000, qPrintable(QString::number(rest)));

    // A look-up that takes a second is no busy event loop, after which another rest would follow.
    const RawOutput third(m_file, "slow2"_s, server.serverPort());
    QVERIFY(QTest::qWaitFor([&] { return third.status() == 3; }, 10000));
    acceptance.join();
    QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
}

void TestForwarders::fileHoldsEveryLine()
{
    const QString name = "frames.log"_s;
    FileOutput radio(m_file, m_file.writeFile(name, "what an earlier run has left"));
    QCOMPARE(radio.status(), 3);
    radio.setStatus(0);
    radio.hear("*NTF,é\r");
    QCOMPARE(radio.status(), 3);
    radio.show("Hello"_s);
    radio.hear(QByteArray("A\0B", 3));
    const char expected[] = "READ: \x02*NTF,é\r\x03\nWRITE: \x02*SET,UI,TEXT,Hello\x03\nREAD: \2A\0B\x03\n";
    QCOMPARE(m_file.readFile(name), QByteArray(expected, sizeof expected - 1));
}

void TestForwarders::filesThatCannotBeWritten()
{
    LogCapture log;
    for (const QString &target : {m_file.file("missing/x.log"_s), ""_s}) {
        log.clear();
        FileOutput nowhere(m_file, target);
        QCOMPARE(nowhere.status(), 4);
        nowhere.hear("lost");
        QCOMPARE(nowhere.status(), 3);
        QCOMPARE(log.text(), "erreur lors de l'ouverture du fichier de logs"_s);
    }

    log.clear();
    FileOutput full(m_file, "/dev/full"_s);
    for (const char *frame : {"one", "two"})
        full.hear(frame);
    QCOMPARE(full.status(), 4);
    QCOMPARE(log.text(), "Cannot write to \"/dev/full\" : \"No space left on device\""_s);

    std::signal(SIGXFSZ, SIG_IGN); // a disk that takes only the beginning of a line
    FileOutput cut(m_file, m_file.file("cut.log"_s));
    cut.hear(QByteArray((1 << 20) - 50, 'x'));
    const rlimit limits[] = {{1 << 20, RLIM_INFINITY}, {RLIM_INFINITY, RLIM_INFINITY}};
    ::setrlimit(RLIMIT_FSIZE, &limits[0]);
    cut.hear(QByteArray(100, 'y'));
    ::setrlimit(RLIMIT_FSIZE, &limits[1]);
    QVERIFY(log.text().endsWith("cut.log\" : \"the line was taken only in part\""_s));
    cut.hear("z");
    QVERIFY(m_file.readFile("cut.log"_s).endsWith("xx\3\nREAD: \2z\3\n"));
}

void TestForwarders::pipesNeverBlock()
{
    std::signal(SIGPIPE, SIG_IGN); // as the daemon does
    const QByteArray path = QFile::encodeName(m_file.file("pipe"_s));
    int reader = -1;
    const auto openReader = [&] { // of a small pipe, in the place of an older one
        ::unlink(path.constData());
        ::mkfifo(path.constData(), 0600);
        reader = ::open(path.constData(), O_RDONLY | O_NONBLOCK);
        ::fcntl(reader, F_SETPIPE_SZ, 4096);
    };
    const auto received = [&] {
        char bytes[9000];
        return QByteArray(bytes, int(::read(reader, bytes, sizeof bytes)));
    };
    const auto line = [](const QByteArray &frame) { return "READ: \2" + frame + "\3\n"; };
    LogCapture log;
    openReader();
    ::close(reader);
    FileOutput radio(m_file, QFile::decodeName(path));
    QCOMPARE(radio.status(), 4);
    QCOMPARE(log.text(), "erreur lors de l'ouverture du fichier de logs"_s);
    radio.hear("lost");
    QCOMPARE(radio.status(), 3);

    openReader();
    log.clear();
    const QByteArray half(2500, 'h');
    const QByteArray tooLong(6000, 'l');
    const std::tuple<QByteArrayList, int, QByteArray> steps[] = {
        {{"first", half, half}, 4, line("first") + line(half)}, // there is no room for the last one
        {{tooLong, half}, 4, line(tooLong).left(4096)},
        {{"next"}, 3, line(tooLong).mid(4096) + line("next")}};
    for (const auto &[frames, status, bytes] : steps) {
        std::for_each(frames.begin(), frames.end(), [&](const QByteArray &frame) { radio.hear(frame); });
        QCOMPARE(radio.status(), status);
        QCOMPARE(received(), bytes);
    }

    radio.hear(tooLong);
    ::close(reader);
    openReader();
    radio.hear("lost"); // the reader of the old pipe has left
    QCOMPARE(radio.status(), 4);
    radio.hear("back");
    QCOMPARE(radio.status(), 3);
    QCOMPARE(received(), line("back"));
    QCOMPARE(log.count("Cannot write to \"%1\" : "_s.arg(QFile::decodeName(path))), 2);
}

QTEST_GUILESS_MAIN(TestForwarders)
#include "tst_forwarders.moc"
