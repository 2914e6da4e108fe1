#include "support/OpenSsl.h"
#include "support/TestDatabase.h"
#include "tools/console/History.h"
#include "tools/console/LoginGuard.h"
#include "tools/quillonctl/PasswordFile.h"

#include <csignal>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

const QByteArray password("nine lives");
const QByteArray jsonType("Content-Type: application/json\r\n");

/// A connection to the console and what it has answered so far.
class Client
{
public:
    explicit Client(quint16 port, const QHostAddress &from = QHostAddress(QHostAddress::LocalHost))
        : m_socket(std::make_unique<QTcpSocket>())
    {
        m_socket->bind(from);
        m_socket->connectToHost(QHostAddress::LocalHost, port);
        m_socket->waitForConnected();
    }
    Client(quint16 port, const TestCertificates &) : m_socket(std::make_unique<QSslSocket>())
    {
        auto *tls = static_cast<QSslSocket *>(m_socket.get());
        tls->connectToHostEncrypted("127.0.0.1"_s, port);
        tls->waitForEncrypted();
    }

    Client &send(const QByteArray &bytes)
    {
        m_socket->write(bytes);
        m_socket->flush();
        return *this;
    }
    /// Everything up to the end of the connection.
    QByteArray answer(int timeoutMs = 10000)
    {
        const bool ended = QTest::qWaitFor(
            [&] {
                m_received += m_socket->readAll();
                return m_socket->state() != QAbstractSocket::ConnectedState;
            },
            timeoutMs);
        if (!ended)
            qDebug("the connection is still open");
        return m_received += m_socket->readAll();
    }
    bool waitFor(const QByteArray &part, int timeoutMs = 5000)
    {
        return QTest::qWaitFor([&] { return (m_received += m_socket->readAll()).contains(part); }, timeoutMs);
    }
    void readSlowly() { m_socket->setReadBufferSize(1); }
    void readFast() { m_socket->setReadBufferSize(0); }
    QByteArray received() const { return m_received; }
    bool isOpen() { return m_socket->state() == QAbstractSocket::ConnectedState; }

private:
    std::unique_ptr<QTcpSocket> m_socket;
    QByteArray m_received;
};

int statusOf(const QByteArray &answer)
{
    return answer.mid(9, 3).toInt();
}

QJsonObject bodyOf(const QByteArray &answer)
{
    return QJsonDocument::fromJson(answer.mid(answer.indexOf("\r\n\r\n") + 4)).object();
}

QByteArray post(const QByteArray &path, const QByteArray &body, const QByteArray &headers = {})
{
    return "POST " + path + " HTTP/1.1\r\nHost: localhost\r\n" + jsonType + headers
        + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

QByteArray get(const QByteArray &path, const QByteArray &headers = {})
{
    return "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n";
}

QByteArray frame(int number)
{
    return "{\"record\":\"frame\",\"port\":\"ttyUSB0\",\"kind\":\"gps\",\"text\":\"n"
        + QByteArray::number(number) + "<script>\"}\n";
}

} // namespace

class TestConsole : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { stop(); }
    void answers_data();
    void answers();
    void refusesToStart_data();
    void refusesToStart();
    void slowClientsCostNobodyElse();
    void outlivesAShortageOfDescriptors();
    void stateHasWhatQuillonctlShows();
    void followsTheStream();
    void eventClients();
    void whoDoesNotReadMisses();
    void loginIsSlowedDown();
    void changes_data();
    void changes();
    void sessionsEnd();
    void speaksTls();
    void passwordFile();
    void historyIsBounded();
    void framesPerMinute();

private:
    void start(const QStringList &options = {});
    void stop();
    QByteArray ask(const QByteArray &request) const { return Client(m_port).send(request).answer(); }
    void setPassword(const QByteArray &value = password) const;
    /// Logs in and yields the headers of a request that may change something.
    QByteArray logIn();
    QByteArray control(const QStringList &arguments, const QByteArray &input = {});

    std::unique_ptr<TestDatabase> m_file;
    std::unique_ptr<QProcess> m_console;
    quint16 m_port = 0;
};

void TestConsole::init()
{
    m_file = std::make_unique<TestDatabase>();
    FreshDatabase made(m_file->path());
    m_file->run("UPDATE data_forwarder SET enabled = 0"_s);
    m_file->addRadio("ttyUSB0"_s, "Van <b>"_s);
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost);
    m_port = probe.serverPort();
}

void TestConsole::start(const QStringList &options)
{
    m_console = std::make_unique<QProcess>();
    m_console->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_console->start(QUILLON_BIN_DIR "/quillon-console"_s,
        QStringList{"-c"_s, m_file->path(), "--listen"_s, "127.0.0.1:%1"_s.arg(m_port)} + options);
    QVERIFY(m_console->waitForReadyRead());
}

void TestConsole::stop()
{
    if (!m_console)
        return;
    m_console->terminate();
    QVERIFY(m_console->waitForFinished());
    QCOMPARE(m_console->exitCode(), 0); // a sanitizer's finding has another one
    m_console.reset();
}

QByteArray TestConsole::control(const QStringList &arguments, const QByteArray &input)
{
    QProcess process;
    process.start(QUILLON_BIN_DIR "/quillonctl"_s, QStringList{"-c"_s, m_file->path()} + arguments);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished();
    return process.readAllStandardOutput() + process.readAllStandardError();
}

void TestConsole::setPassword(const QByteArray &value) const
{
    PasswordFile(m_file->path()).store(value);
}

QByteArray TestConsole::logIn()
{
    const QByteArray answer = ask(post("/api/login", "{\"password\":\"" + password + "\"}"));
    const int cookie = answer.indexOf("quillon_session=");
    return "Cookie: other=1; " + answer.mid(cookie, answer.indexOf(';', cookie) - cookie)
        + "\r\nX-Session-Token: " + bodyOf(answer).value("token"_s).toString().toLatin1() + "\r\n";
}

void TestConsole::answers_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("request");
    const auto filler = [](int size) { return QByteArray(size, 'x'); };
    QTest::newRow("page") << 200 << get("/");
    QTest::newRow("only asked for the head") << 200 << QByteArray("HEAD / HTTP/1.0\r\nHost: [::1]\r\n\r\n");
    QTest::newRow("chart") << 200 << get("/chart.js");
    QTest::newRow("large header") << 200 << get("/", "X: " + filler(8000) + "\r\n");
    QTest::newRow("header too large") << 431 << get("/", "X: " + filler(8192) + "\r\n");
    const QByteArray chunked =
        post("/api/login", {}).replace("Content-Length: 0", "Transfer-Encoding: chunked");
    QTest::newRow("chunk extension") << 401 << chunked + "2;x=" + filler(100) + "\r\n{}\r\n0\r\nX: y\r\n\r\n";
    QTest::newRow("chunk extension too large")
        << 431 << chunked + "2;x=" + filler(20000) + "\r\n{}\r\n0\r\n\r\n";
    QTest::newRow("trailer too large") << 431 << chunked + "2\r\n{}\r\n0\r\nX: " + filler(20000) + "\r\n\r\n";
    QTest::newRow("header without an end") << 431 << "GET / HTTP/1.1\r\n" + filler(20000);
    QTest::newRow("body too large") << 413 << post("/api/say", filler(4097));
    QTest::newRow("no such body") << 413
                                  << QByteArray(
                                         "POST /api/say HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n");
    QTest::newRow("chunks too large")
        << 413 << "POST /api/say HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2000\r\n" + filler(0x2000);
    QTest::newRow("two lengths") << 400
                                 << QByteArray(
                                        "POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n");
    QTest::newRow("noise") << 400 << QByteArray("\0\x16\x03\x01\xff\r\n\r\n", 9);
    QTest::newRow("folder above") << 404 << get("/../../etc/passwd");
    QTest::newRow("encoded path") << 404 << get("/%2e%2e/%00%ff?%zz=%");
    QTest::newRow("no such method") << 405 << QByteArray("DELETE / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    QTest::newRow("state is asked for") << 405 << post("/api/state", "{}").replace("POST", "PUT");
    QTest::newRow("rebound name") << 421
                                  << QByteArray("GET /api/state HTTP/1.1\r\nHost: evil.example\r\n\r\n");
    QTest::newRow("no name") << 421 << QByteArray("GET /api/state HTTP/1.1\r\n\r\n");
    QTest::newRow("no JSON") << 401 << QByteArray("POST /api/restart HTTP/1.1\r\nHost: localhost\r\n\r\n");
    for (const char *path : {"/api/say", "/api/restart", "/api/radio/1", "/api/login", "/api/logout",
             "/api/state", "/api/none", "/"})
        QTest::newRow(path) << 401 << post(path, "{\"text\":\"x\",\"name\":\"x\"}");
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

    Client slowly(m_port); // the same, however it is cut
    for (int i = 0; i < request.size(); i += 1 + request.size() / 40)
        slowly.send(request.mid(i, 1 + request.size() / 40));
    QTEST(statusOf(slowly.answer()), "status");
    QCOMPARE(m_file->run("SELECT count(*) FROM pending_actions"_s), before);
}

void TestConsole::refusesToStart_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("any address") << "--listen 0.0.0.0:%1"_s << QByteArray("console password");
    QTest::newRow("any IPv6 address") << "--listen [::]:%1"_s << QByteArray("a password is needed");
    QTest::newRow("proxy") << "--listen 127.0.0.1:%1 --behind-proxy"_s << QByteArray("with --behind-proxy");
    QTest::newRow("name") << "--listen example.org:%1"_s << QByteArray("not the name");
    QTest::newRow("no port") << "--listen 127.0.0.1"_s << QByteArray("HOST:PORT");
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
    std::vector<Client> slow;
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
}

void TestConsole::outlivesAShortageOfDescriptors()
{
    start();
    const auto process = pid_t(m_console->processId());
    const rlimit few = {30, 4096};
    QCOMPARE(prlimit(process, RLIMIT_NOFILE, &few, nullptr), 0);
    std::vector<Client> many;
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
    const QJsonObject status = QJsonDocument::fromJson(control({"status"_s, "--json"_s})).object();
    for (const QString &member : {"radios"_s, "outputs"_s, "pending"_s})
        QCOMPARE(state.value(member), status.value(member));
    QCOMPARE(state.value("radios"_s).toArray().at(0).toObject().value("name"_s).toString(), "Van <b>"_s);
    QJsonArray findings = state.value("findings"_s).toArray();
    const QJsonObject own = findings.takeAt(0).toObject();
    QVERIFY(own.value("problem"_s).toString().contains("STREAM"_s));
    QCOMPARE(findings, QJsonDocument::fromJson(control({"check"_s, "--json"_s})).array());
    QVERIFY(findings.isEmpty() || findings.at(0).toObject().keys() == own.keys());
}

void TestConsole::followsTheStream()
{
    const QString path = m_file->file("stream"_s);
    m_file->addForwarder("STREAM"_s, path);
    start(); // before the daemon
    Client follower(m_port);
    follower.send(get("/api/events"));
    QVERIFY(follower.waitFor("does not offer its stream"));

    QLocalServer daemon;
    QVERIFY(daemon.listen(path));
    QTRY_VERIFY_WITH_TIMEOUT(daemon.hasPendingConnections(), 10000);
    QLocalSocket *stream = daemon.nextPendingConnection();
    stream->write("{\"record\":\"gateway\",\"gateway\":\"van\"}\nno json\n" + frame(1) + frame(2).left(20));
    QVERIFY(follower.waitFor("n1<script>"));
    QVERIFY(follower.received().contains("\nevent: reset\n"));
    stream->write(frame(2).mid(20));
    QVERIFY2(follower.waitFor("n2<script>", 1000), "a frame has to appear within a second");

    const QJsonObject state = bodyOf(ask(get("/api/state")));
    const QJsonObject activity = state.value("activity"_s).toArray().at(0).toObject();
    QCOMPARE(activity.value("lastHeard"_s).toObject().value("text"_s).toString(), "n2<script>"_s);
    QCOMPARE(activity.value("perMinute"_s).toArray().size(), 60);
    QCOMPARE(state.value("gateway"_s).toObject().value("gateway"_s).toString(), "van"_s);

    m_file->run("UPDATE radio_adapters SET status = 2"_s); // given up: those who watch are told
    stream->write("{\"record\":\"radio\",\"port\":\"ttyUSB0\",\"state\":\"stopped\"}\n");
    QVERIFY(follower.waitFor("\"status\":2", 2000));
    stream->abort();
    QTRY_VERIFY_WITH_TIMEOUT(daemon.hasPendingConnections(), 10000); // it joins again
}

void TestConsole::eventClients()
{
    const QString path = m_file->file("stream"_s);
    m_file->addForwarder("STREAM"_s, path);
    QLocalServer daemon;
    QVERIFY(daemon.listen(path));
    start();
    QTRY_VERIFY(daemon.hasPendingConnections());
    QLocalSocket *stream = daemon.nextPendingConnection();
    for (int i = 1; i <= 1200; ++i)
        stream->write(frame(i));
    QTRY_COMPARE(bodyOf(ask(get("/api/state"))).value("sequence"_s).toInt(), 1200);

    std::vector<Client> clients;
    for (int i = 0; i < 32; ++i)
        clients.emplace_back(m_port).send(get("/api/events"));
    for (Client &client : clients)
        QVERIFY(client.waitFor("n1200<"));
    QVERIFY(!clients.front().received().contains("n200<")); // the last 1,000 are there
    QVERIFY(clients.front().received().contains("n201<"));
    const QByteArray refused = ask(get("/api/events"));
    QCOMPARE(statusOf(refused), 503);
    QVERIFY(refused.contains("\r\nRetry-After: "));

    // One that was away goes on where it was.
    const QByteArray all = clients.back().received();
    const int id = all.lastIndexOf("\nid: ") + 5;
    const QByteArray last = all.mid(id, all.indexOf('\n', id) - id);
    clients.pop_back();
    stream->write(frame(1201));
    QVERIFY(clients.front().waitFor("n1201<"));
    Client again(m_port);
    again.send(get("/api/events?after=" + last));
    QVERIFY(again.waitFor("n1201<"));
    QCOMPARE(again.received().count("\nevent: record\n"), 1);
    QVERIFY(!again.received().contains("event: reset"));
    clients.pop_back();
    const auto isServed = [&] { // with the id of another run of the console
        clients.emplace_back(m_port).send(get("/api/events", "Last-Event-ID: ffff-1\r\n"));
        return statusOf(clients.back().answer(200)) != 503;
    };
    QVERIFY(QTest::qWaitFor(isServed));
    QVERIFY(clients.back().waitFor("n202<"));
}

void TestConsole::whoDoesNotReadMisses()
{
    const TestCertificates certificates;
    const QString path = m_file->file("stream"_s);
    m_file->addForwarder("STREAM"_s, path);
    QLocalServer daemon;
    QVERIFY(daemon.listen(path));
    start({"--certificate"_s, certificates.file("cert.pem"_s), "--key"_s, certificates.file("key.pem"_s)});
    QTRY_VERIFY(daemon.hasPendingConnections());
    QLocalSocket *stream = daemon.nextPendingConnection();
    Client client(m_port, certificates);
    client.send(get("/api/events"));
    QVERIFY(client.waitFor("event: state"));
    client.readSlowly();
    const int count = 8000; // more than the system's buffers and the history take, no faster than is sent
    for (int i = 1; i <= count; ++i) {
        stream->write(frame(i).replace("<script>", QByteArray(1000, 'x')));
        if (i % 50 == 0)
            QTest::qWait(50);
    }
    client.readFast();
    QVERIFY(client.waitFor("\"n" + QByteArray::number(count) + 'x', 30000));
    QVERIFY(client.received().contains("event: missed\ndata: {\"count\":"));
}

void TestConsole::loginIsSlowedDown()
{
    setPassword();
    start();
    QCOMPARE(statusOf(ask(get("/api/state"))), 401);
    QCOMPARE(statusOf(ask(get("/api/events"))), 401);
    QCOMPARE(statusOf(ask(get("/"))), 200); // the page asks for the password
    QCOMPARE(statusOf(ask(post("/api/login", "{\"password\":1}"))), 400);
    const QByteArray wrong = post("/api/login", "{\"password\":\"guess\"}");
    QCOMPARE(statusOf(ask(wrong)), 401);
    const QByteArray tooSoon = ask(post("/api/login", "{\"password\":\"" + password + "\"}"));
    QCOMPARE(statusOf(tooSoon), 429);
    QVERIFY(tooSoon.contains("\r\nRetry-After: "));
    // Nobody else waits.
    const QByteArray right = post("/api/login", "{\"password\":\"" + password + "\"}");
    QCOMPARE(statusOf(Client(m_port, QHostAddress("127.0.0.2"_s)).send(right).answer()), 200);

    LoginGuard guard;
    const QHostAddress address("2001:db8::1"_s);
    QCOMPARE(guard.begin(address), 0);
    const int first = guard.begin(QHostAddress("2001:db8::2"_s)); // the same network
    QVERIFY(first > 800 && first <= 1000);
    QTest::qWait(first + 20);
    QCOMPARE(guard.begin(address), 0);
    QVERIFY(guard.begin(address) > 1800);
    QCOMPARE(guard.begin(QHostAddress("2001:db8:0:1::1"_s)), 0);
    guard.succeeded(address);
    QCOMPARE(guard.begin(address), 0);
}

void TestConsole::changes_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("outcome");
    const QString unchanged = "|ttyUSB0,Van <b>,1"_s;
    const QString radio = "|ttyUSB0,%1"_s;
    const auto row = [](const char *path, const char *body, int status, const QString &outcome) {
        QTest::addRow("%s %s", path, body) << QByteArray(path) << QByteArray(body) << status << outcome;
    };
    row("/api/say", R"({"text":"Été \"à\" 6"})", 200, "DISP,Été \"à\" 6"_s + unchanged);
    row("/api/say", R"({"text":"a\u0002b"})", 422, unchanged);
    row("/api/say", R"({"text":12})", 422, unchanged);
    row("/api/say", R"({"text":)", 400, unchanged);
    row("/api/say", R"(["text"])", 400, unchanged);
    row("/api/say", "{}", 422, unchanged);
    row("/api/restart", "", 200, "RESTART_APP"_s + unchanged);
    row("/api/radio/1", R"({"name":"Base"})", 200, radio.arg("Base,1"_s));
    row("/api/radio/1", R"({"enabled":false})", 200, radio.arg("Van <b>,0"_s));
    row("/api/radio/1", R"({"name":"a|b"})", 422, unchanged);
    row("/api/radio/1", R"({"enabled":"no"})", 422, unchanged);
    row("/api/radio/1", "{}", 422, unchanged);
    row("/api/radio/2", R"({"enabled":false})", 422, unchanged);
    row("/api/radio/1;--", R"({"enabled":false})", 422, unchanged);
    row("/api/nothing", "{}", 404, unchanged);
}

void TestConsole::changes()
{
    setPassword();
    start();
    const QByteArray headers = logIn();
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, body);
    const QByteArray withoutToken = headers.left(headers.indexOf("X-Session-Token"));
    QCOMPARE(statusOf(ask(post(path, body, withoutToken))), 401);
    QCOMPARE(statusOf(ask(post(path, body, withoutToken + "X-Session-Token: 00\r\n"))), 401);
    QCOMPARE(statusOf(ask(post(path, body, headers).replace(jsonType, ""))), 415); // another site's form
    QTEST(statusOf(ask(post(path, body, headers))), "status");
    QTEST(m_file->run(
              "SELECT coalesce((SELECT command FROM pending_actions), ''), port || ',' || name || ',' ||"
              " enabled FROM radio_adapters"_s),
        "outcome");
}

void TestConsole::sessionsEnd()
{
    setPassword();
    start();
    const QByteArray answer = ask(post("/api/login", "{\"password\":\"" + password + "\"}"));
    const QRegularExpression cookie(
        "\r\nSet-Cookie: quillon_session=[0-9a-f]{32}; Max-Age=43200; HttpOnly; SameSite=Strict; Path=/\r\n"_s);
    QVERIFY(cookie.match(QString::fromLatin1(answer)).hasMatch());
    const QByteArray first = logIn();
    QCOMPARE(statusOf(ask(get("/api/state", first))), 200);
    QCOMPARE(statusOf(ask(post("/api/logout", "", first))), 200);
    QCOMPARE(statusOf(ask(get("/api/state", first))), 401);

    const QByteArray second = logIn();
    Client follower(m_port);
    follower.send(get("/api/events", second));
    QVERIFY(follower.waitFor("event: state"));
    QVERIFY(follower.waitFor("\nevent: alive\ndata: {}\n\n", 20000));
    setPassword("another one");
    QTRY_VERIFY_WITH_TIMEOUT(!follower.isOpen(), 20000); // though nobody asks
    QCOMPARE(statusOf(ask(get("/api/state", second))), 401);
    QVERIFY(QFile::remove(m_file->path() + ".console-password"_s));
    QCOMPARE(statusOf(ask(post("/api/restart", "", second))), 401);
}

void TestConsole::speaksTls()
{
    setPassword();
    const TestCertificates certificates;
    start({"--certificate"_s, certificates.file("cert.pem"_s), "--key"_s, certificates.file("key.pem"_s)});
    Client client(m_port, certificates);
    const QByteArray answer = client.send(post("/api/login", "{\"password\":\"" + password + "\"}")).answer();
    QCOMPARE(statusOf(answer), 200);
    QVERIFY(answer.contains("; Secure\r\n"));
    QVERIFY(!Client(m_port).send(get("/")).answer(3000).startsWith("HTTP/1.1 200"));
}

void TestConsole::passwordFile()
{
    QVERIFY(control({"console"_s, "password"_s}, "short\n").contains("at least 8"));
    QVERIFY(control({"console"_s, "password"_s}).contains("no password was given"));
    QVERIFY(control({"console"_s, "password"_s}, password + '\n').contains("is set"));
    struct stat status = {};
    const QString path = m_file->path() + ".console-password"_s;
    QCOMPARE(stat(QFile::encodeName(path).constData(), &status), 0);
    QCOMPARE(status.st_mode & 0777, mode_t(0600));
    const QByteArray line = m_file->readFile("quillon.sqlite.console-password"_s);
    QVERIFY(line.startsWith("scrypt$16384$8$1$") && !line.contains(password));
    setPassword();
    QVERIFY(m_file->readFile("quillon.sqlite.console-password"_s) != line); // another salt

    QFile::setPermissions(path, QFile::ReadOwner | QFile::ReadGroup);
    const PasswordFile opened(m_file->path());
    QVERIFY(!opened.matches(password));
    QVERIFY(opened.problem().contains("chmod 600"_s));
}

void TestConsole::historyIsBounded()
{
    History history;
    for (int i = 0; i < 1200; ++i)
        history.add("x", {}, {});
    QCOMPARE(history.first(), 201);
    for (int i = 0; i < 10; ++i)
        history.add(QByteArray(256 * 1024, 'x'), {}, {});
    QCOMPARE(history.last(), 1210);
    QCOMPARE(history.first(), 1207);
}

void TestConsole::framesPerMinute()
{
    History history;
    const QDateTime start = QDateTime::fromSecsSinceEpoch(1700000040, Qt::UTC); // a whole minute
    const auto hear = [&](int second) {
        history.add("x", {{"record"_s, "frame"_s}, {"port"_s, "p"_s}}, start.addSecs(second));
    };
    const auto counts = [&](int second) {
        return history.activity(start.addSecs(second)).at(0).toObject().value("perMinute"_s).toArray();
    };
    for (int second : {0, 59, 60, 180})
        hear(second);
    QCOMPARE(counts(190).at(59).toInt(), 1);
    QCOMPARE(counts(190).at(58).toInt(), 0);
    QCOMPARE(counts(190).at(56).toInt(), 2);
    QCOMPARE(counts(59 * 60).at(0).toInt(), 2);
    QCOMPARE(counts(60 * 60).at(0).toInt(), 1);
    hear(-3600); // the clock was set back
    QCOMPARE(counts(-3600).at(59).toInt(), 2);
    QCOMPARE(counts(-3540).at(58).toInt(), 2);
    hear(100000);
    QCOMPARE(
        counts(100000), QJsonArray::fromVariantList(QVariantList(QVector<QVariant>(59, 0).toList()) << 1));

    History unset; // of a machine whose clock begins with 1970
    unset.add("x", {{"record"_s, "frame"_s}, {"port"_s, "p"_s}}, QDateTime::fromSecsSinceEpoch(0, Qt::UTC));
    QCOMPARE(unset.activity(QDateTime::fromSecsSinceEpoch(0, Qt::UTC)).size(), 1);
}

QTEST_GUILESS_MAIN(TestConsole)

#include "tst_console.moc"
