#include "support/Daemon.h"
#include "support/HttpServer.h"
#include "support/TestCredential.h"
#include "support/TestDatabase.h"
#include "tools/radiosim/SimulatedRadio.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

/// A plugged radio that the daemon finds under a link.
class Radio : public SimulatedRadio
{
public:
    Radio(const TestDatabase &file, const QString &name, int baud, const QString &esn)
        : SimulatedRadio(settingsOf(baud, esn))
    {
        const QString path = file.folder() + QLatin1Char('/') + name;
        if (!plugIn() || !setLink(path))
            qFatal("%s", qPrintable(errorString()));
        file.addStaticRadio(path, name);
        connect(
            this, &SimulatedRadio::displayChanged, this, [this](const QString &text) { shown.append(text); });
    }

    bool isGreeted() const { return displayText().isEmpty() && shown.size() > 4; }

    QStringList shown;

private:
    static RadioSettings settingsOf(int baud, const QString &esn)
    {
        RadioSettings settings;
        settings.baud = baud;
        settings.esn = esn;
        return settings;
    }
};

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
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
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
    void framesReachEveryOutput();
    void pendingActions();
    void rebootRunsTheProgramWithoutArguments();
    void fileThatCannotBeOpenedEndsTheProcess();
    void fileThatIsNoDatabaseIsSurvived();
    void vanishedRadioCostsNothing();
};

void TestDaemon::framesReachEveryOutput()
{
    const TestDatabase file;
    {
        Daemon first; // makes the file
        first.startOn(file.path());
        QVERIFY(first.waitForLog(QStringLiteral("populating fresh data")));
        QCOMPARE(first.terminate(), 0);
    }
    HttpServer cloud;
    cloud.answer = [](const HttpServer::Request &) {
        return HttpServer::Answer{200, "OK", R"({"access_token":"t0k"})"};
    };
    Listener raw;
    Listener extended;
    const QString host = QStringLiteral("127.0.0.1");
    const QString log = file.folder() + QStringLiteral("/frames.log");
    file.addForwarder(QStringLiteral("RAW"), host, raw.serverPort());
    file.addForwarder(QStringLiteral("ERAW"), host, extended.serverPort());
    file.addForwarder(QStringLiteral("FILE"), log);
    file.addForwarder(QStringLiteral("DUOS"), QString());
    file.addForwarder(QStringLiteral("GCP"), cloud.url(), 0,
        QString::fromLatin1(TestCredential().secret(cloud.url() + QStringLiteral("/token"))),
        QStringLiteral("topic"));
    Radio fast(file, QStringLiteral("fast"), 19200, QStringLiteral("28940001"));
    Radio slow(file, QStringLiteral("slow"), 4800, QStringLiteral("37980002"));

    Daemon daemon;
    daemon.startOn(file.path());
    QVERIFY(file.waitForValue(QStringLiteral("SELECT group_concat(esn) FROM radio_adapters WHERE status = 1"),
        QStringLiteral("28940001,37980002"), firstScanAndIdentification));
    QTRY_VERIFY_WITH_TIMEOUT(fast.isGreeted() && slow.isGreeted(), firstScanAndIdentification);
    QVERIFY(slow.shown.contains(
        QStringLiteral("Radio nommee slow branchee sur le port %1/slow").arg(file.folder())));

    QVERIFY(fast.hear("*NTF,DPMR,RXVCALL,1,2,3,4,5"));
    QVERIFY(slow.hear("*NTF,5T,RXCODE,1,2,3"));
    QTRY_VERIFY(raw.received.endsWith("\x02*NTF,5T,RXCODE,1,2,3\x03"));
    QVERIFY(raw.received.contains("\x02*NTF,DPMR,RXVCALL,1,2,3,4,5\x03"));
    QTRY_VERIFY(extended.received.contains("fast|*NTF,DPMR,RXVCALL,1,2,3,4,5"));
    QTRY_VERIFY(extended.received.endsWith("slow|*NTF,5T,RXCODE,1,2,3"));
    QTRY_VERIFY(cloud.requests.size() > 3);
    QCOMPARE(cloud.requests.last().path, QByteArray("/v1/projects/proj/topics/topic:publish"));
    QCOMPARE(file.value(QStringLiteral("SELECT group_concat(status) FROM data_forwarder WHERE ids > 1"))
                 .toString(),
        QStringLiteral("3,3,3,3,3"));

    QCOMPARE(daemon.terminate(), 0);
    QFile written(log);
    QVERIFY(written.open(QIODevice::ReadOnly));
    const QByteArray lines = written.readAll();
    QVERIFY(lines.endsWith("READ: \x02*NTF,5T,RXCODE,1,2,3\x03\n"));
    QVERIFY(lines.contains("WRITE: \x02*GET,INFO,COMMENT,1\x03\n"));
}

void TestDaemon::pendingActions()
{
    const TestDatabase file;
    Daemon daemon;
    daemon.startOn(file.path());
    QVERIFY(daemon.waitForLog(QStringLiteral("populating")));
    QTRY_COMPARE(file.value(QStringLiteral("SELECT count(*) FROM sqlite_master")).toInt(), 5);
    Radio one(file, QStringLiteral("one"), 19200, QStringLiteral("1"));
    Radio two(file, QStringLiteral("two"), 19200, QStringLiteral("2"));
    QTRY_VERIFY_WITH_TIMEOUT(one.isGreeted() && two.isGreeted(), firstScanAndIdentification);

    const QStringList commands{QStringLiteral("DISP,\"Test\""), QStringLiteral("Disp,A DISP,B"),
        QStringLiteral("make coffee"), QStringLiteral("RESTART_APP")};
    QElapsedTimer clock;
    clock.start();
    for (const QString &command : commands)
        file.run(QStringLiteral("INSERT INTO pending_actions (command) VALUES (?)"), {command});
    QTRY_VERIFY(one.shown.contains(QStringLiteral("TEST")) && two.shown.contains(QStringLiteral("TEST")));
    QTRY_VERIFY(one.shown.contains(QStringLiteral("A B")) && two.shown.contains(QStringLiteral("A B")));
    QCOMPARE(daemon.waitForExit(15000), 0);
    QVERIFY2(clock.elapsed() >= 5500, "one action each two seconds");
    QVERIFY2(!isLocked(one.slavePath()) && !isLocked(two.slavePath()), "the next start can open them");
    QCOMPARE(file.value(QStringLiteral("SELECT count(*) FROM pending_actions")).toInt(), 0);
    QStringList logged;
    for (const QString &line : daemon.log().split(QLatin1Char('\n'))) {
        if (line.startsWith(QStringLiteral("Info: Command : ")))
            logged.append(line);
    }
    QCOMPARE(logged,
        (QStringList{QStringLiteral("Info: Command :  \"DISP,\\\"TEST\\\"\""),
            QStringLiteral("Info: Command :  \"DISP,A DISP,B\""),
            QStringLiteral("Info: Command :  \"MAKE COFFEE\""),
            QStringLiteral("Info: Command :  \"RESTART_APP\"")}));
}

void TestDaemon::rebootRunsTheProgramWithoutArguments()
{
    const TestDatabase file;
    const QString stub = file.folder() + QStringLiteral("/sbin");
    QVERIFY(QDir().mkdir(stub));
    QFile program(stub + QStringLiteral("/reboot"));
    QVERIFY(program.open(QIODevice::WriteOnly));
    program.write("#!/bin/sh\necho \"rebooted with $# arguments\" >&2\nexit 1\n");
    program.close();
    program.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    // The machine's own program is out of reach for the daemon: all of /sbin is this stub.
    Daemon daemon;
    const QString shell = QStringLiteral("mount --bind '%1' \"$(readlink -f /sbin)\"; test ! -e /sbin/mkfs;"
                                         " grep -q 'rebooted with' /sbin/reboot; exec \"$@\"");
    if (!daemon.startInMountNamespace(shell.arg(stub), {QStringLiteral("-c"), file.path()}))
        QSKIP("mount namespaces are not allowed here");
    QVERIFY(daemon.waitForLog(QStringLiteral("populating fresh data")));
    QTRY_COMPARE(file.value(QStringLiteral("SELECT count(*) FROM sqlite_master")).toInt(), 5);
    file.run(QStringLiteral("INSERT INTO pending_actions (command) VALUES ('REBOOT')"));
    QVERIFY(daemon.waitForLog(QStringLiteral("rebooted with 0 arguments")));
    QCOMPARE(file.value(QStringLiteral("SELECT count(*) FROM pending_actions")).toInt(), 0);
    QCOMPARE(daemon.terminate(), 0); // a reboot that fails changes nothing
}

void TestDaemon::fileThatCannotBeOpenedEndsTheProcess()
{
    const TestDatabase file;
    Daemon daemon;
    daemon.startOn(file.folder() + QStringLiteral("/missing/folder.sqlite"));
    QCOMPARE(daemon.waitForExit(), 255);
    QVERIFY(daemon.log().contains(QStringLiteral("Info: Error: connection with database fail\n")));
}

void TestDaemon::fileThatIsNoDatabaseIsSurvived()
{
    const TestDatabase file;
    QFile rubbish(file.path());
    QVERIFY(rubbish.open(QIODevice::WriteOnly));
    rubbish.write(QByteArray(3000, '?'));
    rubbish.close();
    Daemon daemon;
    daemon.startOn(file.path());
    QVERIFY(daemon.waitForLog(QStringLiteral("void ConfigDatabase::resetAdapters()  : error caught : ")));
    QVERIFY(!daemon.process().waitForFinished(3000));
    QCOMPARE(daemon.terminate(), 0);

    // With a database in its place, the next operation works.
    Daemon second;
    second.startOn(file.path());
    QVERIFY(second.waitForLog(QStringLiteral("resetAdapters()")));
    QVERIFY(rubbish.remove());
    QVERIFY(second.waitForLog(QStringLiteral("populating fresh data")));
    QCOMPARE(second.terminate(), 0);
}

void TestDaemon::vanishedRadioCostsNothing()
{
    const TestDatabase file;
    Daemon daemon;
    daemon.startOn(file.path());
    QVERIFY(daemon.waitForLog(QStringLiteral("populating")));
    QTRY_COMPARE(file.value(QStringLiteral("SELECT count(*) FROM sqlite_master")).toInt(), 5);
    Radio radio(file, QStringLiteral("one"), 19200, QStringLiteral("1"));
    const QString status = QStringLiteral("SELECT status FROM radio_adapters");
    QVERIFY(file.waitForValue(status, 1, firstScanAndIdentification));
    QVERIFY(radio.send("\x02*NTF,DPMR,RX"));
    radio.unplug();
    QVERIFY(file.waitForValue(status, 2));
    const int before = cpuTicks(daemon.process().processId());
    QTest::qWait(2000);
    QVERIFY2(cpuTicks(daemon.process().processId()) - before <= 10, "at most a tenth of a second");
    QVERIFY(radio.plugIn());
    QVERIFY(file.waitForValue(status, 1, firstScanAndIdentification));
}

QTEST_GUILESS_MAIN(TestDaemon)
#include "tst_daemon.moc"
