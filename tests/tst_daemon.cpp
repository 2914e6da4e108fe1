#include "support/Daemon.h"
#include "support/HttpServer.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

/// What came over every connection to the TCP outputs' server.
class Listener : public QTcpServer
{
public:
    Listener()
    {
        listen(QHostAddress::LocalHost);
        connect(this, &QTcpServer::newConnection, this, [this] {
            QTcpSocket *client = nextPendingConnection();
            connect(client, &QTcpSocket::readyRead, this, [this, client] { received += client->readAll(); });
        });
    }
    QByteArray received;
};

/// CPU time of a process in clock ticks.
int cpuTicks(qint64 pid)
{
    QFile file("/proc/%1/stat"_s.arg(pid));
    file.open(QIODevice::ReadOnly);
    const QList<QByteArray> fields = file.readAll().split(' ');
    return fields.value(13).toInt() + fields.value(14).toInt();
}

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
    // The first four share a daemon, which the last of them ends.
    void initTestCase();
    void framesReachEveryOutput();
    void vanishedRadioCostsNothing();
    void pendingActionsSteerIt();
    void rebootRunsTheProgramWithoutArguments();
    void unusableFiles();

private:
    TestDatabase m_file;
    Daemon m_daemon;
    PluggedRadio m_fast{19200, "28940001"_s};
    PluggedRadio m_slow{4800, "37980002"_s};
    HttpServer m_cloud;
    Listener m_server;
};

void TestDaemon::initTestCase()
{
    FreshDatabase made(m_file.path());
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
        QTRY_VERIFY(m_server.received.contains(radio + frame));
    QTRY_COMPARE(m_server.received.count('\x02' + frame + '\x03'), 2);
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

void TestDaemon::vanishedRadioCostsNothing()
{
    const QString status = "SELECT status FROM radio_adapters WHERE name = 'fast'"_s;
    QVERIFY(m_fast.send("\x02*NTF,DPMR,RX"));
    m_fast.unplug();
    QVERIFY(m_file.waitFor(status, "2"_s));
    const int before = cpuTicks(m_daemon.processId());
    QTest::qWait(2000);
    QVERIFY2(cpuTicks(m_daemon.processId()) - before <= 10, "at most a tenth of a second");
    QVERIFY(m_fast.plugIn());
    QVERIFY(m_file.waitFor(status, "1"_s, firstScanAndIdentification));
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

void TestDaemon::rebootRunsTheProgramWithoutArguments()
{
    QVERIFY(QDir(m_file.folder()).mkdir("sbin"_s));
    m_file.writeFile("sbin/reboot"_s,
        "#!/bin/sh\nls -l /proc/self/fd >&2\necho \"rebooted with $# arguments\" >&2\nexit 1\n");

    // The machine's own program is out of reach for the daemon: all of /sbin is this stub.
    const QString shell = "mount --bind '%1' \"$(readlink -f /sbin)\"; test ! -e /sbin/mkfs;"
                          " grep -q 'rebooted with' /sbin/reboot; exec \"$@\""_s;
    m_file.run("INSERT INTO pending_actions (command) VALUES ('REBOOT')"_s);
    Daemon daemon;
    if (!daemon.startInMountNamespace(shell.arg(m_file.file("sbin"_s)), {"-c"_s, m_file.path()}))
        QSKIP("mount namespaces are not allowed here");
    QVERIFY(daemon.waitForLog("rebooted with 0 arguments"_s));
    QCOMPARE(m_file.run("SELECT * FROM pending_actions"_s), QString());
    QCOMPARE(daemon.end(), 0); // a reboot that fails changes nothing
    QVERIFY2(!daemon.log().contains(".lock"_s), "a child of the daemon must not keep the next one off");
}

void TestDaemon::unusableFiles()
{
    Daemon unopenable;
    unopenable.start({"-c"_s, m_file.file("missing/folder.sqlite"_s)});

    QVERIFY(QFile::link("/nowhere/at/all"_s, m_file.file("rubbish.lock"_s))); // runs without a lock, too
    ::signal(SIGHUP, SIG_DFL); // whatever this test was started with
    const QByteArray rubbish(3000, '?');
    Daemon daemon;
    daemon.start({"-c"_s, m_file.writeFile("rubbish"_s, rubbish)});
    QVERIFY(daemon.waitForLog("void ConfigDatabase::resetAdapters()  : error caught : "_s));
    QVERIFY(!daemon.waitForFinished(3000));
    QVERIFY(daemon.log().count("checkDatabaseRelease()  : error caught :  QSqlError("_s) > 2);
    QCOMPARE(m_file.readFile("rubbish"_s), rubbish);
    // With a database in its place, the next operation works.
    QVERIFY(QFile::remove(m_file.file("rubbish"_s)));
    QVERIFY(daemon.waitForLog("populating fresh data"_s));
    ::kill(pid_t(daemon.processId()), SIGHUP);
    QCOMPARE(daemon.waitForExit(), 0);

    QCOMPARE(unopenable.waitForExit(), 255);
    QVERIFY(unopenable.log().contains("Info: Error: connection with database fail\n"_s));
}

QTEST_GUILESS_MAIN(TestDaemon)
#include "tst_daemon.moc"
