#include "support/Daemon.h"
#include "support/HttpServer.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

#include <fcntl.h>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

/// What came over every connection to a TCP output's server.
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
    void addRadio(const QString &name, SimulatedRadio *radio);

    TestDatabase m_file;
    Daemon m_daemon;
    PluggedRadio m_fast{19200, "28940001"_s};
    PluggedRadio m_slow{4800, "37980002"_s};
    HttpServer m_cloud;
    Listener m_raw;
    Listener m_extended;
};

void TestDaemon::addRadio(const QString &name, SimulatedRadio *radio)
{
    QVERIFY(radio->setLink(m_file.file(name)));
    m_file.addRadio(radio->link(), name);
}

void TestDaemon::initTestCase()
{
    FreshDatabase made(m_file.path());
    m_cloud.otherAnswer.body = R"({"access_token":"t0k"})";
    m_file.addForwarder("RAW"_s, "127.0.0.1"_s, m_raw.serverPort());
    m_file.addForwarder("ERAW"_s, "127.0.0.1"_s, m_extended.serverPort());
    m_file.addForwarder("FILE"_s, m_file.file("frames.log"_s));
    m_file.addForwarder("DUOS"_s);
    m_file.addForwarder("carrier pigeon"_s);
    m_file.addForwarder(
        "GCP"_s, m_cloud.url(), 0, TestCredential().secret(m_cloud.url("/token"_s)), "topic"_s);
    m_file.run("INSERT INTO data_forwarder SELECT NULL, type, secret, context, comment, target, port, 0, 0"
               " FROM data_forwarder WHERE type = 'RAW'"_s); // disabled
    addRadio("fast"_s, &m_fast);
    addRadio("slow"_s, &m_slow);
    m_daemon.start({"-c"_s, m_file.path()});
}

void TestDaemon::framesReachEveryOutput()
{
    QTRY_VERIFY_WITH_TIMEOUT(m_fast.isIdle() && m_slow.isIdle(), firstScanAndIdentification);
    QCOMPARE(m_file.run("SELECT status, esn FROM radio_adapters"_s), "1|28940001\n1|37980002"_s);
    QVERIFY(m_slow.shown.contains("Radio nommee slow branchee sur le port "_s + m_slow.link()));

    QVERIFY(m_fast.hear("*NTF,DPMR,RXVCALL,1,2,3,4,5"));
    QTRY_VERIFY(m_raw.received.contains("\x02*NTF,DPMR,RXVCALL,1,2,3,4,5\x03"));
    QTRY_VERIFY(m_extended.received.contains("fast|*NTF,DPMR,RXVCALL,1,2,3,4,5"));
    QVERIFY(m_slow.hear("*NTF,5T,RXCODE,1,2,3"));
    QTRY_VERIFY(m_raw.received.contains("\x02*NTF,5T,RXCODE,1,2,3\x03"));
    QTRY_VERIFY(m_extended.received.contains("slow|*NTF,5T,RXCODE,1,2,3"));
    QTRY_VERIFY(m_cloud.requestsTo("/v1/projects/proj/topics/topic:publish").size() > 2);
    QTRY_COMPARE(m_file.run("SELECT group_concat(status) FROM data_forwarder"_s), "0,3,3,3,3,0,3,0"_s);

    QFile written(m_file.file("frames.log"_s));
    QVERIFY(written.open(QIODevice::ReadOnly));
    const QByteArray lines = written.readAll();
    QVERIFY(lines.contains("\nREAD: \x02*NTF,5T,RXCODE,1,2,3\x03\n"));
    QVERIFY(lines.contains("\nWRITE: \x02*GET,INFO,COMMENT,1\x03\n"));
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
    const QString stub = m_file.file("sbin"_s);
    QVERIFY(QDir().mkdir(stub));
    QFile program(stub + "/reboot"_s);
    QVERIFY(program.open(QIODevice::WriteOnly));
    program.write("#!/bin/sh\necho \"rebooted with $# arguments\" >&2\nexit 1\n");
    program.close();
    program.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    // The machine's own program is out of reach for the daemon: all of /sbin is this stub.
    const QString shell = "mount --bind '%1' \"$(readlink -f /sbin)\"; test ! -e /sbin/mkfs;"
                          " grep -q 'rebooted with' /sbin/reboot; exec \"$@\""_s;
    m_file.run("INSERT INTO pending_actions (command) VALUES ('REBOOT')"_s);
    Daemon daemon;
    if (!daemon.startInMountNamespace(shell.arg(stub), {"-c"_s, m_file.path()}))
        QSKIP("mount namespaces are not allowed here");
    QVERIFY(daemon.waitForLog("rebooted with 0 arguments"_s));
    QCOMPARE(m_file.run("SELECT * FROM pending_actions"_s), QString());
    QCOMPARE(daemon.end(), 0); // a reboot that fails changes nothing
}

void TestDaemon::unusableFiles()
{
    Daemon unopenable;
    unopenable.start({"-c"_s, m_file.file("missing/folder.sqlite"_s)});

    QFile rubbish(m_file.file("rubbish"_s));
    QVERIFY(rubbish.open(QIODevice::WriteOnly));
    rubbish.write(QByteArray(3000, '?'));
    rubbish.close();
    Daemon daemon;
    daemon.start({"-c"_s, rubbish.fileName()});
    QVERIFY(daemon.waitForLog("void ConfigDatabase::resetAdapters()  : error caught : "_s));
    QVERIFY(!daemon.waitForFinished(3000));
    QVERIFY(daemon.log().count("checkDatabaseRelease()  : error caught :  QSqlError("_s) > 2);
    QVERIFY(rubbish.open(QIODevice::ReadOnly));
    QCOMPARE(rubbish.readAll(), QByteArray(3000, '?'));
    QVERIFY(rubbish.remove()); // with a database in its place, the next operation works
    QVERIFY(daemon.waitForLog("populating fresh data"_s));
    QCOMPARE(daemon.end(), 0);

    QCOMPARE(unopenable.waitForExit(), 255);
    QVERIFY(unopenable.log().contains("Info: Error: connection with database fail\n"_s));
}

QTEST_GUILESS_MAIN(TestDaemon)
#include "tst_daemon.moc"
