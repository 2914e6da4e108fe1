#include "support/ConsoleTest.h"
#include "tools/console/LoginGuard.h"
#include "tools/quillonctl/PasswordFile.h"

#include <sys/stat.h>

namespace {

const QByteArray password("nine lives");
const QByteArray login = post("/api/login", "{\"password\":\"" + password + "\"}");

} // namespace

class TestConsoleAccess : public ConsoleTest
{
    Q_OBJECT

private slots:
    void loginIsSlowedDown();
    void changes_data();
    void changes();
    void sessionsEnd();
    void speaksTls();
    void passwordFile();

private:
    void setPassword(const QByteArray &value = password) const { PasswordFile(m_file->path()).store(value); }
    /// Logs in and yields the headers of a request that may change something.
    QByteArray logIn();
};

QByteArray TestConsoleAccess::logIn()
{
    const QByteArray answer = ask(login);
    const int cookie = answer.indexOf("quillon_session=");
    return "Cookie: other=1; " + answer.mid(cookie, answer.indexOf(';', cookie) - cookie)
        + "\r\nX-Session-Token: " + bodyOf(answer).value("token"_s).toString().toLatin1() + "\r\n";
}

void TestConsoleAccess::loginIsSlowedDown()
{
    setPassword();
    start();
    QCOMPARE(statusOf(ask(get("/api/state"))), 401);
    QCOMPARE(statusOf(ask(get("/api/events"))), 401);
    QCOMPARE(statusOf(ask("GET / HTTP/1.1\r\n\r\n")), 400);
    QCOMPARE(statusOf(ask("GET / HTTP/1.0\r\n\r\n")), 200);
    QCOMPARE(statusOf(ask(get("/"))), 200); // the page asks for the password
    QCOMPARE(statusOf(ask(post("/api/login", "{\"password\":1}"))), 400);
    const QByteArray wrong = post("/api/login", "{\"password\":\"guess\"}");
    QCOMPARE(statusOf(ask(wrong)), 401);
    const QByteArray tooSoon = ask(login);
    QCOMPARE(statusOf(tooSoon), 429);
    QVERIFY(tooSoon.contains("\r\nRetry-After: "));
    // Nobody else waits.
    QCOMPARE(statusOf(ConsoleClient(m_port, QHostAddress("127.0.0.2"_s)).send(login).answer()), 200);

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

void TestConsoleAccess::changes_data()
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

void TestConsoleAccess::changes()
{
    setPassword();
    start();
    const QByteArray headers = logIn();
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, body);
    const QByteArray withoutToken = headers.left(headers.indexOf("X-Session-Token"));
    const QJsonObject french = bodyOf(ask(get("/texts.json"))).value("findings"_s).toObject();
    for (const QByteArray &refused : {ask(post(path, body)), ask(post(path, body, withoutToken))}) {
        QCOMPARE(statusOf(refused), 401);
        QVERIFY2(french.contains(bodyOf(refused).value("error"_s).toString()), refused);
    }
    QCOMPARE(statusOf(ask(post(path, body, withoutToken + "X-Session-Token: 00\r\n"))), 401);
    const QByteArray form = post(path, body, headers).replace("application/json", "text/plain");
    QCOMPARE(statusOf(ask(form)), 415); // another site's
    QTEST(statusOf(ask(post(path, body, headers))), "status");
    QTEST(m_file->run(
              "SELECT coalesce((SELECT command FROM pending_actions), ''), port || ',' || name || ',' ||"
              " enabled FROM radio_adapters"_s),
        "outcome");
}

void TestConsoleAccess::sessionsEnd()
{
    setPassword();
    start();
    const QByteArray answer = ask(login);
    const QRegularExpression cookie(
        "\r\nSet-Cookie: quillon_session=[0-9a-f]{32}; Max-Age=43200; HttpOnly; SameSite=Strict; Path=/\r\n"_s);
    QVERIFY(cookie.match(QString::fromLatin1(answer)).hasMatch());
    const QByteArray first = logIn();
    QCOMPARE(statusOf(ask(get("/api/state", first))), 200);
    QCOMPARE(statusOf(ask(post("/api/logout", "", first))), 200);
    QCOMPARE(statusOf(ask(get("/api/state", first))), 401);

    const QByteArray second = logIn();
    ConsoleClient follower(m_port);
    follower.send(get("/api/events", second));
    QVERIFY(follower.waitFor("event: state"));
    setPassword("another one");
    QTRY_VERIFY_WITH_TIMEOUT(!follower.isOpen(), 20000); // though nobody asks
    QCOMPARE(statusOf(ask(get("/api/state", second))), 401);
    QVERIFY(QFile::remove(m_file->path() + ".console-password"_s));
    QCOMPARE(statusOf(ask(post("/api/restart", "", second))), 401);
}

void TestConsoleAccess::speaksTls()
{
    setPassword();
    const TestCertificates certificates;
    start({"--certificate"_s, certificates.file("cert.pem"_s), "--key"_s, certificates.file("key.pem"_s)});
    ConsoleClient client(m_port, certificates);
    const QByteArray answer = client.send(login).answer();
    QCOMPARE(statusOf(answer), 200);
    QVERIFY(answer.contains("; Secure\r\n"));
    QVERIFY(!ConsoleClient(m_port).send(get("/")).answer(3000).startsWith("HTTP/1.1 200"));
    QVERIFY(runShell("timeout 9 " QUILLON_BIN_DIR
                     "/quillon-console -c x --certificate cert.pem --key ca.key 2>&1 ||:"_s,
        QFileInfo(certificates.file("cert.pem"_s)).path())
                .contains("is not that of the certificate"));
}

void TestConsoleAccess::passwordFile()
{
    QVERIFY(control("console password <<.\nshort\n."_s).contains("at least 8"));
    QVERIFY(control("console password </dev/null"_s).contains("no password was given"));
    QVERIFY(control("console password <<.\nnine lives\n."_s).contains("is set"));
    struct stat status = {};
    const QString path = m_file->path() + ".console-password"_s;
    QCOMPARE(stat(QFile::encodeName(path).constData(), &status), 0);
    QCOMPARE(status.st_mode & 0777, mode_t(0600));
    const QByteArray line = m_file->readFile("quillon.sqlite.console-password"_s);
    QVERIFY(line.startsWith("$7$C6..../....") && !line.contains(password));
    setPassword();
    QVERIFY(m_file->readFile("quillon.sqlite.console-password"_s) != line); // another salt

    const PasswordFile opened(m_file->path());
    QVERIFY(opened.problem().isEmpty() && opened.matches(password));
    QVERIFY(QFile::resize(path, 60));
    QVERIFY(opened.problem().contains("set it anew"_s));
    QFile::setPermissions(path, QFile::ReadOwner | QFile::ReadGroup);
    QVERIFY(!opened.matches(password));
    QVERIFY(opened.problem().contains("chmod 600"_s));
}

QTEST_GUILESS_MAIN(TestConsoleAccess)
#include "tst_consoleaccess.moc"
