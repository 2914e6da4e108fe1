#include "support/Daemon.h"
#include "support/HttpServer.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

#include <csignal>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

/// Whether a program has kept the device for itself and not given that up. An emulator may not tell root.
bool isLocked(const QString &device)
{
    const int descriptor = ::open(QFile::encodeName(device).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    int locked = 0;
    const bool isKnown = descriptor >= 0 && ::ioctl(descriptor, TIOCGEXCL, &locked) == 0;
    ::close(descriptor);
    return descriptor < 0 || (isKnown && locked != 0);
}

constexpr int firstScanAndIdentification = 20000; // ms; long enough for a busy machine

} // namespace

class TestDaemon : public QObject
{
    Q_OBJECT

private slots:
    // The first three share a daemon, which the last of them ends.
    void initTestCase();
    void framesReachEveryOutput();
    void pendingActionsSteerIt();
    void unusableFileIsKept();

private:
    TestDatabase m_file;
    Daemon m_daemon;
    PluggedRadio m_fast{19200, "28940001"_s};
    PluggedRadio m_slow{4800, "37980002"_s};
    HttpServer m_cloud;
    QTcpServer m_server;
    QByteArray m_received; // over every connection to the server
};

void TestDaemon::initTestCase()
{
    FreshDatabase made(m_file.path());
    QVERIFY(m_server.listen(QHostAddress::LocalHost));
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        QTcpSocket *client = m_server.nextPendingConnection();
        connect(client, &QTcpSocket::readyRead, this, [this, client] { m_received += client->readAll(); });
    });
    m_cloud.otherAnswer.body = R"({"access_token":"t0k"})";
    m_file.addForwarder("RAW"_s, "127.0.0.1"_s, m_server.serverPort());
    m_file.addForwarder("ERAW"_s, "127.0.0.1"_s, m_server.serverPort());
    m_file.addForwarder("FILE"_s, m_file.file("frames.log"_s));
    m_file.addForwarder("DUOS"_s);
    m_file.addForwarder("carrier pigeon"_s);
    m_file.addForwarder(
        "GCP"_s, m_cloud.url(), 0, TestCredential().secret(m_cloud.url("/token"_s)), "topic"_s);
    m_file.run("INSERT INTO data_forwarder (type, enabled, status) VALUES ('DUOS', 0, 0)"_s);
    QVERIFY(m_fast.setLink(m_file.file("fast"_s)) && m_slow.setLink(m_file.file("slow"_s)));
    m_file.addRadio(m_fast.link(), "fast"_s);
    m_file.addRadio(m_slow.link(), "slow"_s);
    m_file.setKey("autokill_enabled"_s, "tRUe"_s);
    m_file.setKey("autokill_url"_s, "nowhere"_s);
    m_daemon.start({"-c"_s, m_file.path()});
}

void TestDaemon::framesReachEveryOutput()
{
    QVERIFY(m_daemon.waitForLog("AutoKill : "_s));
    QTRY_VERIFY_WITH_TIMEOUT(m_fast.isIdle() && m_slow.isIdle(), firstScanAndIdentification);
    QCOMPARE(m_file.run("SELECT status, esn FROM radio_adapters"_s), "1|28940001\n1|37980002"_s);
    QVERIFY(m_slow.shown.contains("Radio nommee slow branchee sur le port "_s + m_slow.link()));

    const QByteArray frame("*NTF,5T,RXCODE,1,2,3");
    QVERIFY(m_fast.hear(frame) && m_slow.hear(frame));
    for (const QByteArray &radio : {QByteArray("fast|"), QByteArray("slow|")})
        QTRY_VERIFY(m_received.contains(radio + frame));
    QTRY_COMPARE(m_received.count('\x02' + frame + '\x03'), 2);
    QTRY_VERIFY(m_cloud.requestsTo("/v1/projects/proj/topics/topic:publish").size() > 2);
    QTRY_COMPARE(m_file.run("SELECT group_concat(status) FROM data_forwarder"_s), "0,3,3,3,3,0,3,0"_s);

    const QByteArray lines = m_file.readFile("frames.log"_s);
    QVERIFY(lines.contains("\nREAD: \x02" + frame + "\x03\n"));
    QVERIFY(lines.contains("\nWRITE: \x02*GET,INFO,COMMENT,1\x03\n"));

    QVERIFY(QFile::link(m_file.path(), m_file.file("other name"_s)));
    Daemon second;
    second.start({"-c"_s, m_file.file("other name"_s)});
    QVERIFY(second.waitForFinished(5000) && second.waitForExit() == 2);
    QVERIFY(second.log().contains("Critical: Another daemon uses the configuration file"_s));
    QCOMPARE(m_file.run("SELECT group_concat(status) FROM data_forwarder"_s), "0,3,3,3,3,0,3,0"_s);
}

void TestDaemon::pendingActionsSteerIt()
{
    QElapsedTimer clock;
    clock.start();
    for (const QString &command : {"DISP,\"Test\""_s, "Disp,A DISP,B"_s, "make coffee"_s, "RESTART_APP"_s})
        m_file.run("INSERT INTO pending_actions (command) VALUES (?)"_s, {command});
    for (const QString &text : {"TEST"_s, "A B"_s})
        QTRY_VERIFY(m_fast.shown.contains(text) && m_slow.shown.contains(text));
    QCOMPARE(m_daemon.waitForExit(), 0);
    QVERIFY2(clock.elapsed() >= 5500, "one action each two seconds");
    QVERIFY2(!isLocked(m_fast.slavePath()) && !isLocked(m_slow.slavePath()), "the next start can open them");
    QCOMPARE(m_file.run("SELECT * FROM pending_actions"_s), QString());
    QCOMPARE(m_daemon.log().split(u'\n').filter("Info: Command : "_s).join(u'\n'),
        "Info: Command :  \"DISP,\\\"TEST\\\"\"\nInfo: Command :  \"DISP,A DISP,B\"\n"
        "Info: Command :  \"MAKE COFFEE\"\nInfo: Command :  \"RESTART_APP\""_s);
}

void TestDaemon::unusableFileIsKept()
{
    QVERIFY(QFile::link("/nowhere/at/all"_s, m_file.file("rubbish.lock"_s))); // runs without a lock, too
    ::signal(SIGHUP, SIG_DFL); // whatever this test was started with
    const QByteArray rubbish(3000, '?');
    Daemon daemon;
    daemon.start({"-c"_s, m_file.writeFile("rubbish"_s, rubbish)});
    QVERIFY(daemon.waitForLog("void ConfigDatabase::resetAdapters()  : error caught : "_s));
    QVERIFY(!daemon.waitForFinished(3000));
    QCOMPARE(daemon.log().count("checkDatabaseRelease()  : error caught :  QSqlError("_s), 2);
    QCOMPARE(m_file.readFile("rubbish"_s), rubbish);
    // With a database in its place, the next operation works.
    QVERIFY(QFile::remove(m_file.file("rubbish"_s)));
    QVERIFY(daemon.waitForLog("populating fresh data"_s));
    ::kill(pid_t(daemon.processId()), SIGHUP);
    QCOMPARE(daemon.waitForExit(), 0);
}

QTEST_GUILESS_MAIN(TestDaemon)
#include "tst_daemon.moc"
