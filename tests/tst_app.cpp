#include "app/InstanceLock.h"
#include "app/LogHandler.h"
#include "support/Daemon.h"
#include "support/TestDatabase.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

/// Shows on standard error what the process hands to syslog.
static void recordSyslog(int priority, const char *format, va_list arguments)
{
    char text[1000];
    std::vsnprintf(text, sizeof text, format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    std::fprintf(stderr, "syslog %d %s\n", priority, text);
}

// These stand before the C library's, plain and hardened, so the real calls end up here.
extern "C" void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSyslog(priority, format, arguments);
    va_end(arguments);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSyslog(priority, format, arguments);
    va_end(arguments);
}

class TestApp : public QObject
{
    Q_OBJECT

private slots:
    void logHandler();
    void lifeUnderSystemd();
    void defaultConfigurationAndReboot();
    void commandLine();
    void lockOfALink();
};

void TestApp::logHandler()
{
    constexpr int unknownType = 17;
    const QByteArray expected("Debug: 50 %s é\nsyslog 7 ostraserialtonetwork (debug): 50 %s é\n"
                              "Info: 50 %s é\nsyslog 6 ostraserialtonetwork (info): 50 %s é\n"
                              "Warning: 50 %s é\nsyslog 4 ostraserialtonetwork (warning): 50 %s é\n"
                              "Critical: 50 %s é\nsyslog 2 ostraserialtonetwork (critical): 50 %s é\n"
                              "Fatal: 50 %s é\nsyslog 1 ostraserialtonetwork (alert): 50 %s é\n");
    int pipeEnds[2];
    QCOMPARE(::pipe(pipeEnds), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGABRT, SIG_DFL);
        ::dup2(pipeEnds[1], STDERR_FILENO);
        for (const int type : {unknownType, int(QtDebugMsg), int(QtInfoMsg), int(QtWarningMsg),
                 int(QtCriticalMsg), int(QtFatalMsg)})
            handleLogMessage(QtMsgType(type), QMessageLogContext(), "50 %s é"_s);
        ::_exit(0); // a fatal one does not get here
    }
    ::close(pipeEnds[1]);
    QFile standardError;
    QVERIFY(standardError.open(pipeEnds[0], QIODevice::ReadOnly, QFile::AutoCloseHandle));
    const QByteArray written = standardError.readAll();
    QVERIFY2(written.startsWith(expected), written); // an emulator may add a word about the abort
    int status = 0;
    QCOMPARE(::waitpid(child, &status, 0), child);
    QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

void TestApp::lifeUnderSystemd()
{
    const TestDatabase file;
    sockaddr_un address = {AF_UNIX, {}};
    qstrncpy(address.sun_path, QFile::encodeName(file.file("notify"_s)).constData(), sizeof address.sun_path);
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto closed = qScopeGuard([socket] { ::close(socket); });
    QCOMPARE(::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);

    Daemon daemon;
    daemon.setEnvironment(QProcess::systemEnvironment()
        + QStringList{"NOTIFY_SOCKET="_s + file.file("notify"_s), "WATCHDOG_USEC=1000000"_s});
    daemon.start({"-c"_s, file.path(), "ignored"_s, "words"_s});
    QElapsedTimer sinceReady;
    for (const char *expected : {"READY=1", "WATCHDOG=1", "WATCHDOG=1"}) {
        char message[100] = {};
        QVERIFY(QTest::qWaitFor([&] { return ::recv(socket, message, sizeof message - 1, 0) > 0; }, 10000));
        QCOMPARE(QByteArray(message), QByteArray(expected));
        if (!sinceReady.isValid())
            sinceReady.start();
    }
    QVERIFY2(sinceReady.elapsed() >= 400 && sinceReady.elapsed() < 5000, "at a quarter of the interval");

    QVERIFY(daemon.log().startsWith(
        "Info: Using custom configuration :  \"%1\"\nInfo: Creating a brand new"_s.arg(file.path())));
    ::kill(pid_t(daemon.processId()), SIGINT);
    QCOMPARE(daemon.waitForExit(), 0);
    QVERIFY(!daemon.log().contains("AutoKill"_s));

    for (char message[100]; ::recv(socket, message, sizeof message, 0) > 0;) { }
    file.addForwarder("RAW"_s, "127.0.0.1"_s, 1);
    Daemon waiting; // for a server, which it says beforehand
    waiting.setEnvironment(daemon.environment() + QStringList("WATCHDOG_USEC=3600000000"_s));
    waiting.start({"-c"_s, file.path()});
    QVERIFY(QTest::qWaitFor([&] {
        char message[100] = {};
        return ::recv(socket, message, sizeof message - 1, 0) > 0 && QByteArray(message) == "WATCHDOG=1";
    }));
    QCOMPARE(waiting.end(), 0);

    Daemon unread; // whose signs fill the socket within a second, and must not hold it up
    unread.setEnvironment(daemon.environment() + QStringList("WATCHDOG_USEC=3000"_s));
    unread.start({"-c"_s, file.path()});
    QTest::qWait(2500);
    QCOMPARE(unread.end(), 0);
}

void TestApp::defaultConfigurationAndReboot()
{
    // In a /tmp and a /sbin of its own: the default file may be in use on this machine, whose own reboot must
    // be out of reach. The daemon goes along, in case it was built below /tmp itself; its input is closed.
    const QString shell = "cp \"$1\" '%1/quillon'; mount --bind '%1' \"$(readlink -f /sbin)\";"
                          " test ! -e /sbin/mkfs; grep -q 'rebooted with' /sbin/reboot;"
                          " mount --bind '%1' /tmp; shift; exec /tmp/quillon \"$@\" <&-"_s;
    for (const QStringList &arguments : {QStringList(), QStringList{"-c"_s, {}}}) {
        const TestDatabase file;
        file.writeFile("reboot"_s,
            "#!/bin/sh\nls -l /proc/self/fd >&2\necho \"rebooted with $# arguments\" >&2\nexit 1\n");
        QVERIFY(QFile::link(file.file("ostraForwarder.sqlite"_s), file.path()));
        Daemon daemon;
        if (!daemon.startInMountNamespace(shell.arg(file.folder()), arguments))
            QSKIP("mount namespaces are not allowed here");
        QVERIFY(daemon.waitForLog("populating fresh data"_s));
        QVERIFY(
            daemon.log().startsWith(arguments.isEmpty() ? "Info: Using default configuration\n"_s
                                                        : "Info: Using custom configuration :  \"\"\n"_s));
        QCOMPARE(QFile::symLinkTarget("/proc/%1/fd/0"_s.arg(daemon.processId())), "/dev/null"_s);
        file.run("INSERT INTO pending_actions (command) VALUES ('REBOOT')"_s);
        QVERIFY(daemon.waitForLog("rebooted with 0 arguments"_s));
        QVERIFY2(!daemon.log().contains(".lock"_s), "a child of the daemon must not keep the next one off");
        QCOMPARE(daemon.end(), 0); // a reboot that fails changes nothing
        QCOMPARE(file.run("SELECT * FROM pending_actions"_s), QString());
    }
}

void TestApp::commandLine()
{
    const std::tuple<QString, int, QString> cases[] = {{"--version"_s, 0, "Quillon 0.23.0\n"_s},
        {"--help"_s, 0, "/tmp/ostraForwarder.sqlite)."_s}, {"--help"_s, 0, "\nQuillon\n\nOptions:"_s},
        {"--fast"_s, 1, "Unknown option 'fast'."_s},
        {"-c/missing/x"_s, 255, "Info: Error: connection with database fail\n"_s}};
    for (const auto &[option, code, output] : cases) {
        Daemon daemon;
        daemon.start({option});
        QCOMPARE(daemon.waitForExit(), code);
        const QString printed = QString::fromUtf8(daemon.readAllStandardOutput()) + daemon.log();
        QVERIFY2(printed.contains(output), qPrintable(printed));
    }
}

void TestApp::lockOfALink()
{
    const TestDatabase file;
    QVERIFY(QFile::link(file.path(), file.file("link"_s)));
    const InstanceLock lock(file.file("link"_s)); // before there is a file
    file.writeFile("quillon.sqlite"_s, {});
    QVERIFY(InstanceLock(file.file("link"_s)).isHeldElsewhere());
}

QTEST_GUILESS_MAIN(TestApp)
#include "tst_app.moc"
