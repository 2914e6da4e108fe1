#include "app/LogHandler.h"
#include "support/Daemon.h"
#include "support/TestDatabase.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
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
    void logHandler_data();
    void logHandler();
    void interruptEndsIt();
    void defaultConfiguration();
    void commandLine();
};

void TestApp::logHandler_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("output");
    const auto row = [](const char *name, int type, const char *output) {
        QTest::newRow(name) << type << QByteArray(output);
    };
    row("debug", QtDebugMsg, "Debug: 50 %s é\nsyslog 7 ostraserialtonetwork (debug): 50 %s é\n");
    row("info", QtInfoMsg, "Info: 50 %s é\nsyslog 6 ostraserialtonetwork (info): 50 %s é\n");
    row("warning", QtWarningMsg, "Warning: 50 %s é\nsyslog 4 ostraserialtonetwork (warning): 50 %s é\n");
    row("critical", QtCriticalMsg, "Critical: 50 %s é\nsyslog 2 ostraserialtonetwork (critical): 50 %s é\n");
    row("fatal", QtFatalMsg, "Fatal: 50 %s é\nsyslog 1 ostraserialtonetwork (alert): 50 %s é\n");
    row("no such type", 17, "");
}

void TestApp::logHandler()
{
    QFETCH(int, type);
    QFETCH(QByteArray, output);
    int pipeEnds[2];
    QCOMPARE(::pipe(pipeEnds), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGABRT, SIG_DFL);
        ::dup2(pipeEnds[1], STDERR_FILENO);
        handleLogMessage(QtMsgType(type), QMessageLogContext(), "50 %s é"_s);
        ::_exit(0);
    }
    ::close(pipeEnds[1]);
    QFile standardError;
    QVERIFY(standardError.open(pipeEnds[0], QIODevice::ReadOnly, QFile::AutoCloseHandle));
    QByteArray written = standardError.readAll();
    written.replace("qemu: uncaught target signal 6 (Aborted) - core dumped\n", ""); // an emulator's own word
    QCOMPARE(written, output);
    int status = 0;
    QCOMPARE(::waitpid(child, &status, 0), child);
    QCOMPARE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT, type == QtFatalMsg);
}

void TestApp::interruptEndsIt()
{
    const TestDatabase file;
    Daemon daemon;
    daemon.start({"-c"_s, file.path(), "ignored"_s, "words"_s});
    QVERIFY(daemon.waitForLog("populating fresh data"_s));
    QVERIFY(daemon.log().startsWith(
        "Info: Using custom configuration :  \"%1\"\nInfo: Creating a brand new"_s.arg(file.path())));
    ::kill(pid_t(daemon.processId()), SIGINT);
    QCOMPARE(daemon.waitForExit(), 0);
}

void TestApp::defaultConfiguration()
{
    const QTemporaryDir folder(QDir::currentPath() + "/default-XXXXXX"_s);
    // Its /tmp is a folder of the test's, as the default file may be in use on this machine; the daemon goes
    // along, in case it was built below /tmp itself.
    const QString shell = "cp \"$1\" '%1/quillon'; mount --bind '%1' /tmp; shift; exec /tmp/quillon \"$@\""_s;
    for (const QStringList &arguments : {QStringList(), QStringList{"-c"_s, {}}}) {
        Daemon daemon;
        if (!daemon.startInMountNamespace(shell.arg(folder.path()), arguments))
            QSKIP("mount namespaces are not allowed here");
        QVERIFY(daemon.waitForLog("populating fresh data"_s));
        QVERIFY(
            daemon.log().startsWith(arguments.isEmpty() ? "Info: Using default configuration\n"_s
                                                        : "Info: Using custom configuration :  \"\"\n"_s));
        QCOMPARE(daemon.end(), 0);
        QVERIFY(QFile::remove(folder.filePath("ostraForwarder.sqlite"_s)));
    }
}

void TestApp::commandLine()
{
    const QPair<QString, QString> cases[] = {{"--version"_s, "Quillon 0.23.0\n"_s},
        {"--help"_s, "/tmp/ostraForwarder.sqlite)."_s}, {"--fast"_s, "Unknown option 'fast'."_s}};
    for (const auto &[option, output] : cases) {
        Daemon daemon;
        daemon.start({option});
        QCOMPARE(daemon.waitForExit(), option == "--fast"_s ? 1 : 0);
        const QString printed = QString::fromUtf8(daemon.readAllStandardOutput()) + daemon.log();
        QVERIFY2(printed.contains(output), qPrintable(printed));
    }
}

QTEST_GUILESS_MAIN(TestApp)
#include "tst_app.moc"
