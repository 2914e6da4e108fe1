#include "support/ConsoleTest.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/socket.h>

class TestConsole : public ConsoleTest
{
    Q_OBJECT

private slots:
    void answers_data();
    void answers();
    void answersHeadWithoutBody();
    void refusesToStart_data();
    void refusesToStart();
    void slowClientsCostNobodyElse();
    void outlivesAShortageOfDescriptors();
    void stateHasWhatQuillonctlShows();
    void stateWaitsForNoServer();
    void tellsWhenItCannotCheck_data();
    void tellsWhenItCannotCheck();
};

void TestConsole::answers_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("request");
    const auto filler = [](int size) { return QByteArray(size, 'x'); };
    const auto row = [](const char *name, int status, const QByteArray &request) {
        QTest::newRow(name) << status << request;
    };
    row("page", 200, get("/"));
    row("only asked for the head", 200, "HEAD / HTTP/1.0\r\nHost: [::1]\r\n\r\n");
    row("chart", 200, get("/chart.js"));
    row("large header", 200, get("/", "X: " + filler(8000) + "\r\n"));
    row("header too large", 431, get("/", "X: " + filler(8192) + "\r\n"));
    const QByteArray chunked =
        post("/api/login", {}).replace("Content-Length: 0", "Transfer-Encoding: chunked");
    row("last chunk", 401, chunked + "0\r\n\r\n");
    row("chunk extension", 401, chunked + "2;x=" + filler(100) + "\r\n{}\r\n0\r\nX: y\r\n\r\n");
    row("chunk extension too large", 431, chunked + "2;x=" + filler(20000) + "\r\n{}\r\n0\r\n\r\n");
    row("trailer too large", 431, chunked + "2\r\n{}\r\n0\r\nX: " + filler(20000) + "\r\n\r\n");
    row("header without an end", 431, "GET / HTTP/1.1\r\n" + filler(20000));
    row("body too large", 413, post("/api/say", filler(4097)));
    row("no such body", 413, "POST /api/say HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n");
    row("chunks too large", 413,
        "POST /api/say HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2000\r\n" + filler(0x2000));
    row("two lengths", 400, "POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n");
    row("noise", 400, QByteArray("\0\x16\x03\x01\xff\r\n\r\n", 9));
    row("folder above", 404, get("/../../etc/passwd"));
    row("encoded path", 404, get("/%2e%2e/%00%ff?%zz=%"));
    row("no such method", 405, "DELETE / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    row("absolute form", 200, "GET http://localhost HTTP/1.1\r\nHost: evil.example\r\n\r\n");
    row("absolute form of a state", 200, "GET HTTP://[::1]:8470/api/state?/ HTTP/1.1\r\nHost: x\r\n\r\n");
    row("absolute form of another", 421, "GET https://evil.example/ HTTP/1.1\r\nHost: localhost\r\n\r\n");
    row("absolute form of none", 400, "GET http:///api/state HTTP/1.1\r\nHost: localhost\r\n\r\n");
    row("nothing under /api", 404, get("/api/none"));
    row("what takes POST", 405, get("/api/say"));
    row("state is asked for", 405, post("/api/state", "{}").replace("POST", "PUT"));
    row("rebound name", 421, "GET /api/state HTTP/1.1\r\nHost: evil.example\r\n\r\n");
    row("no name in HTTP/1.0", 421, "GET /api/state HTTP/1.0\r\n\r\n");
    row("no name", 400, "GET /api/state HTTP/1.1\r\n\r\n");
    row("two names", 400, get("/api/state", "Host: localhost\r\n"));
    row("no JSON", 401, "POST /api/restart HTTP/1.1\r\nHost: localhost\r\n\r\n");
    for (const char *path : {"/api/say", "/api/restart", "/api/radio/1", "/api/login", "/api/logout",
             "/api/state", "/api/none", "/"})
        row(path, 401, post(path, "{\"text\":\"x\",\"name\":\"x\"}"));
}

void TestConsole::answers()
{
    QFETCH(QByteArray, request);
    start();
    const QString before = m_file->run("SELECT count(*) FROM pending_actions"_s);
    const QByteArray answer = ask(request);
    QTEST(statusOf(answer), "status");
    for (const char *header : {"\r\nContent-Security-Policy: default-src 'self';", "frame-ancestors 'none'",
             "\r\nX-Content-Type-Options: nosniff\r\n", "\r\nReferrer-Policy: no-referrer\r\n"})
        QVERIFY2(answer.contains(header), header);
    QVERIFY(!answer.contains("unsafe-inline"));

    ConsoleClient slowly(m_port); // the same, however it is cut
    for (int i = 0, piece = 0; i < request.size(); i += piece) {
        piece = qMax(1, (request.size() - i) / 40); // its end byte by byte
        slowly.send(request.mid(i, piece));
        QTest::qWait(1);
    }
    QTEST(statusOf(slowly.answer()), "status");
    QCOMPARE(m_file->run("SELECT count(*) FROM pending_actions"_s), before);
}

void TestConsole::answersHeadWithoutBody()
{
    start();
    for (const char *path : {"/", "/api/state", "/api/events", "/api/say"}) {
        ConsoleClient client(m_port);
        QVERIFY(client.send(get(path)).waitFor("\r\n\r\n", 10000));
        const QByteArray head = ask(get(path).replace(0, 3, "HEAD"));
        QCOMPARE(statusOf(head), statusOf(client.received()));
        QVERIFY2(head.endsWith("\r\n\r\n") && head.count("\r\n\r\n") == 1, head);
        QCOMPARE(head.contains("Content-Length: "), client.received().contains("Content-Length: "));
    }
}

void TestConsole::refusesToStart_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("any address") << "--listen 0.0.0.0:%1"_s << QByteArray("console password");
    QTest::newRow("proxy") << "--listen 127.0.0.1:%1 --behind-proxy"_s << QByteArray("with --behind-proxy");
    QTest::newRow("name") << "--listen example.org:%1"_s << QByteArray("not the name");
    QTest::newRow("no port") << "--listen 127.0.0.1"_s << QByteArray("HOST:PORT");
    QTest::newRow("bracket") << "--listen [:%1"_s << QByteArray("HOST:PORT");
    QTest::newRow("twice") << "--listen 127.0.0.1:%1 --listen 127.0.0.2:%1"_s << QByteArray("twice");
    QTest::newRow("surplus") << "127.0.0.1:%1"_s << QByteArray("127.0.0.1");
    QTest::newRow("no key") << "--certificate /dev/null"_s << QByteArray("--key");
    QTest::newRow("no certificate") << "--certificate /dev/null --key /dev/null"_s
                                    << QByteArray("no certificate");
}

void TestConsole::refusesToStart()
{
    QFETCH(QString, options);
    QProcess console;
    console.start(QUILLON_BIN_DIR "/quillon-console"_s,
        QStringList{"-c"_s, m_file->path()} + options.replace("%1"_s, QString::number(m_port)).split(u' '));
    QVERIFY(console.waitForFinished());
    QCOMPARE(console.exitCode(), 2);
    const QByteArray error = console.readAllStandardError();
    QFETCH(QByteArray, reason);
    QVERIFY2(error.contains(reason), error.constData());
}

void TestConsole::slowClientsCostNobodyElse()
{
    start();
    ConsoleClient follower(m_port);
    QVERIFY(follower.send(get("/api/events")).waitFor("event: state"));
    std::vector<ConsoleClient> slow;
    for (int i = 0; i < 200; ++i) // more than are kept
        slow.emplace_back(m_port).send("GET / HTTP/1.1\r\nHost: local");
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 20; ++i)
        QCOMPARE(statusOf(ask(get("/"))), 200);
    QVERIFY2(clock.elapsed() < 3000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(slow.back().isOpen());

    clock.start();
    while (clock.elapsed() < 8000 && slow.back().send("h").isOpen()) // a byte now and then wins no time
        QTest::qWait(300);
    QCOMPARE(statusOf(slow.back().answer()), 408);
    QVERIFY(follower.waitFor("\nevent: alive\ndata: {}\n\n", 20000));
}

void TestConsole::outlivesAShortageOfDescriptors()
{
    start();
    QCOMPARE(statusOf(ask(get("/"))), 200); // the sanitizer needs a pipe for each type that it meets first
    const auto process = pid_t(m_console->processId());
    const rlimit few = {30, 4096};
    QCOMPARE(prlimit(process, RLIMIT_NOFILE, &few, nullptr), 0);
    std::vector<ConsoleClient> many;
    kill(process, SIGSTOP); // they are to come all at once, the first ones it sees
    for (int i = 0; i < 40; ++i)
        many.emplace_back(m_port).send("GET");
    kill(process, SIGCONT);
    QTest::qWait(200);
    many.clear();
    QCOMPARE(statusOf(ask(get("/"))), 200);
}

void TestConsole::stateHasWhatQuillonctlShows()
{
    QTcpServer taken; // a server that takes just one connection must not lose it to the console
    QVERIFY(taken.listen(QHostAddress::LocalHost));
    m_file->addForwarder("RAW"_s, "127.0.0.1"_s, taken.serverPort());
    m_file->run("UPDATE data_forwarder SET status = 3"_s);
    start();
    const QJsonObject state = bodyOf(ask(get("/api/state")));
    QVERIFY(!taken.waitForNewConnection(200));
    const QJsonObject status = QJsonDocument::fromJson(control("status --json"_s)).object();
    for (const QString &member : {"radios"_s, "outputs"_s, "pending"_s})
        QCOMPARE(state.value(member), status.value(member));
    QCOMPARE(state.value("radios"_s).toArray().at(0).toObject().value("name"_s).toString(), "Van <b>"_s);
    QJsonArray findings = state.value("findings"_s).toArray();
    const QJsonObject own = findings.takeAt(0).toObject();
    QVERIFY(own.value("problem"_s).toString().contains("STREAM"_s));
    QCOMPARE(findings, QJsonDocument::fromJson(control("check --json"_s)).array());
    QVERIFY(findings.isEmpty() || findings.at(0).toObject().keys() == own.keys());
}

void TestConsole::stateWaitsForNoServer()
{
    QTcpServer server; // with a full backlog: who connects gets no answer
    QVERIFY(server.listen(QHostAddress::LocalHost));
    server.pauseAccepting();
    QCOMPARE(::listen(int(server.socketDescriptor()), 0), 0);
    const ConsoleClient filler(server.serverPort());
    for (int i = 0; i < 3; ++i)
        m_file->addForwarder("RAW"_s, "127.0.0.1"_s, server.serverPort());
    start();
    ConsoleClient follower(m_port);
    follower.send(get("/api/events"));
    QElapsedTimer clock;
    clock.start();
    const QJsonObject state = bodyOf(ask(get("/api/state")));
    QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(state.value("checked"_s).toString(), QString());
    QCOMPARE(state.value("outputs"_s).toArray().size(), 4);
    QVERIFY(follower.waitFor("cannot be reached", 10000));
}

void TestConsole::tellsWhenItCannotCheck_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("missing") << QByteArray() << QByteArray("execvp: No such file or directory");
    QTest::newRow("killed") << QByteArray("kill -9 $$") << QByteArray("Process crashed");
}

void TestConsole::tellsWhenItCannotCheck()
{
    QFETCH(QByteArray, script);
    QFETCH(QByteArray, reason);
    QVERIFY(QFile::copy(QUILLON_BIN_DIR "/quillon-console"_s, m_file->file("quillon-console"_s)));
    QFile program(m_file->file("quillonctl"_s));
    if (!script.isEmpty())
        QVERIFY(program.open(QIODevice::WriteOnly) && program.write("#!/bin/sh\n" + script) > 0
            && program.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    program.close();
    start({}, QFileInfo(program).path());
    const QJsonArray findings = bodyOf(ask(get("/api/state"))).value("findings"_s).toArray();
    QVERIFY2(QJsonDocument(findings).toJson().contains("quillonctl check failed: " + reason),
        QJsonDocument(findings).toJson());
}

QTEST_GUILESS_MAIN(TestConsole)
#include "tst_console.moc"
