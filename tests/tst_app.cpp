#include "app/LogHandler.h"
#include "support/Daemon.h"
#include "support/TestDatabase.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Shows on standard error what the process hands to syslog.
void recordSyslog(int priority, const char *format, va_list arguments)
{
    char text[1000];
    std::vsnprintf(text, sizeof text, format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    std::fprintf(stderr, "syslog %d %s\n", priority, text);
}

} // namespace

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
    void customConfiguration();
    void defaultConfiguration_data();
    void defaultConfiguration();
    void commandLine_data();
    void commandLine();
    void terminationSignals_data();
    void terminationSignals();
};

void TestApp::logHandler_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<bool>("aborts");
    QTest::newRow("debug") << int(QtDebugMsg)
                           << QByteArray("Debug: 50 %s é\nsyslog 7 ostraserialtonetwork (debug): 50 %s é\n")
                           << false;
    QTest::newRow("info") << int(QtInfoMsg)
                          << QByteArray("Info: 50 %s é\nsyslog 6 ostraserialtonetwork (info): 50 %s é\n")
                          << false;
    QTest::newRow("warning") << int(
        QtWarningMsg) << QByteArray("Warning: 50 %s é\nsyslog 4 ostraserialtonetwork (warning): 50 %s é\n")
                             << false;
    QTest::newRow("critical") << int(
        QtCriticalMsg) << QByteArray("Critical: 50 %s é\nsyslog 2 ostraserialtonetwork (critical): 50 %s é\n")
                              << false;
    QTest::newRow("fatal") << int(QtFatalMsg)
                           << QByteArray("Fatal: 50 %s é\nsyslog 1 ostraserialtonetwork (alert): 50 %s é\n")
                           << true;
    QTest::newRow("no such type") << 17 << QByteArray() << false;
}

void TestApp::logHandler()
{
    const QByteArray qemuAborted("qemu: uncaught target signal 6 (Aborted) - core dumped\n");
    QFETCH(int, type);
    QFETCH(QByteArray, output);
    QFETCH(bool, aborts);
    int pipeEnds[2];
    QCOMPARE(::pipe(pipeEnds), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGABRT, SIG_DFL);
        ::dup2(pipeEnds[1], STDERR_FILENO);
        handleLogMessage(QtMsgType(type), QMessageLogContext(), QStringLiteral("50 %s é"));
        ::_exit(0);
    }
    ::close(pipeEnds[1]);
    QFile standardError;
    QVERIFY(standardError.open(pipeEnds[0], QIODevice::ReadOnly, QFile::AutoCloseHandle));
    // The second is an emulator's own word on a program that aborts.
    const QByteArray written = standardError.readAll();
    QVERIFY2(written == output || written == output + qemuAborted, written);
    int status = 0;
    QCOMPARE(::waitpid(child, &status, 0), child);
    QCOMPARE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT, aborts);
}

void TestApp::customConfiguration()
{
    const TestDatabase file;
    Daemon daemon;
    daemon.start({QStringLiteral("-c"), file.path(), QStringLiteral("ignored"), QStringLiteral("words")});
    QVERIFY(daemon.waitForLog(QStringLiteral("populating fresh data")));
    QVERIFY(daemon.log().startsWith(
        QStringLiteral("Info: Using custom configuration :  \"%1\"\nInfo: Creating a brand new")
            .arg(file.path())));
    QCOMPARE(daemon.terminate(), 0);
}

void TestApp::defaultConfiguration_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("line");
    QTest::newRow("no option") << QStringList() << "Info: Using default configuration\n";
    QTest::newRow("empty value") << QStringList{QStringLiteral("--configfile"), QStringLiteral("")}
                                 << "Info: Using custom configuration :  \"\"\n";
}

void TestApp::defaultConfiguration()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, line);
    const QTemporaryDir folder(QDir::currentPath() + QStringLiteral("/default-XXXXXX"));
    // Its /tmp is a folder of the test's, as the default file may be in use on this machine; the daemon goes
    // along, in case it was built below /tmp itself.
    const QString shell =
        QStringLiteral("cp \"$1\" '%1/quillon'; mount --bind '%1' /tmp; shift; exec /tmp/quillon \"$@\"");
    Daemon daemon;
    if (!daemon.startInMountNamespace(shell.arg(folder.path()), arguments))
        QSKIP("mount namespaces are not allowed here");
    QVERIFY(daemon.waitForLog(QStringLiteral("populating fresh data")));
    QVERIFY2(daemon.log().startsWith(line), qPrintable(daemon.log()));
    QCOMPARE(daemon.terminate(), 0);
    QVERIFY(QFile::exists(folder.filePath(QStringLiteral("ostraForwarder.sqlite"))));
}

void TestApp::commandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");
    QTest::newRow("version") << QStringList(QStringLiteral("--version")) << 0 << "Quillon 0.23.0\n";
    QTest::newRow("help")
        << QStringList(QStringLiteral("--help")) << 0
        << "Configuration file (default is\n                           /tmp/ostraForwarder.sqlite).";
    QTest::newRow("unknown option") << QStringList(QStringLiteral("--fast")) << 1 << "Unknown option 'fast'.";
    QTest::newRow("missing value") << QStringList(QStringLiteral("-c")) << 1 << "Missing value after '-c'.";
}

void TestApp::commandLine()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    Daemon daemon;
    daemon.start(arguments);
    QCOMPARE(daemon.waitForExit(), exitCode);
    const QString printed = QString::fromUtf8(daemon.process().readAllStandardOutput()) + daemon.log();
    QVERIFY2(printed.contains(output), qPrintable(printed));
}

void TestApp::terminationSignals_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGTERM") << SIGTERM;
    QTest::newRow("SIGINT") << SIGINT;
}

void TestApp::terminationSignals()
{
    QFETCH(int, signal);
    const TestDatabase file;
    Daemon daemon;
    daemon.startOn(file.path());
    QVERIFY(daemon.waitForLog(QStringLiteral("populating fresh data")));
    ::kill(pid_t(daemon.process().processId()), signal);
    QCOMPARE(daemon.waitForExit(), 0);
}

QTEST_GUILESS_MAIN(TestApp)
#include "tst_app.moc"
