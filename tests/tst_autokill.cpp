#include "autokill/AutoKill.h"
#include "config/ConfigDatabase.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/TestCertificates.h"
#include "support/TestDatabase.h"

#include <QTest>

namespace {

/// A poller of its own, as a new process would have it.
class Poller : public AutoKill
{
public:
    void refreshNow() { QMetaObject::invokeMethod(this, "refresh"); }
    void fetchNow() { QMetaObject::invokeMethod(this, "retrieveDeathNote", Q_ARG(QString, QString())); }
};

constexpr char threeRadios[] =
    R"({"entities":[{"externalId":"0012345"},{"externalId":"Ab"},{"externalId":"9"}]})";

} // namespace

class TestAutoKill : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void logsInAndFetches();
    void refreshForgetsUntilTheNextFetch();
    void refusedAnswers_data();
    void refusedAnswers();
    void ignoresTheAnswerAfterAnUnexpectedOne();
    void answersThatAreNoJson();
    void refusesOlderTls();
    void addresses_data();
    void addresses();

private:
    TestDatabase m_file;
    TestCertificates m_certificates;
};

void TestAutoKill::initTestCase()
{
    ConfigDatabase::getInstance(m_file.path());
}

void TestAutoKill::init()
{
    m_file.setKey(QStringLiteral("autokill_enabled"), QStringLiteral("tRuE"));
    m_file.setKey(QStringLiteral("autokill_user"), QStringLiteral("u%2\"é"));
    m_file.setKey(QStringLiteral("autokill_pwd"), QStringLiteral("secret"));
}

void TestAutoKill::logsInAndFetches()
{
    HttpServer server(&m_certificates);
    m_file.setKey(QStringLiteral("autokill_url"), server.url());
    server.answer = [](const HttpServer::Request &request) {
        return HttpServer::Answer{
            200, "OK", request.method == "POST" ? R"({"accessToken":"t0k%1"})" : QByteArray(threeRadios)};
    };
    Poller poller;
    poller.start();
    QTRY_VERIFY(poller.isFlagged(QStringLiteral("Ab")));
    for (const char *flagged : {"0012345", "9"})
        QVERIFY(poller.isFlagged(QLatin1String(flagged)));
    for (const char *other : {"ab", "12345", ""})
        QVERIFY(!poller.isFlagged(QLatin1String(other)));

    QCOMPARE(server.requests.size(), 2);
    const HttpServer::Request login = server.requests.first();
    QCOMPARE(login.path, QByteArray("/api/auth"));
    QCOMPARE(login.body, QByteArray("{\"username\":\"u%2\"é\",\"password\":\"secret\"}"));
    QCOMPARE(login.headers.value("content-type"), QByteArray("application/json"));
    QCOMPARE(login.headers.value("server"), QByteArray("accept:application/json; charset=UTF-8"));
    const HttpServer::Request query = server.requests.last();
    QCOMPARE(query.method, QByteArray("GET"));
    QCOMPARE(query.path,
        QByteArray("/api/ressource?limit=100&offset=0&type=dpmr&attributeName=autokill&attributeValue=true"));
    QCOMPARE(query.headers.value("authorization"), QByteArray("Bearer t0k%1"));
    QCOMPARE(query.headers.value("server"), login.headers.value("server"));

    m_file.setKey(QStringLiteral("autokill_enabled"), QStringLiteral("false"));
    QVERIFY(!poller.isFlagged(QStringLiteral("Ab")));
}

void TestAutoKill::refreshForgetsUntilTheNextFetch()
{
    HttpServer server(&m_certificates);
    m_file.setKey(QStringLiteral("autokill_url"), server.url());
    server.answer = [](const HttpServer::Request &) { return HttpServer::Answer{200, "OK", threeRadios}; };
    Poller poller;
    poller.start();
    QTRY_VERIFY(poller.isFlagged(QStringLiteral("9")));
    QCOMPARE(server.requests.last().headers.value("authorization"), QByteArray("Bearer"));

    poller.refreshNow();
    QVERIFY(!poller.isFlagged(QStringLiteral("9")));
    QTRY_VERIFY(poller.isFlagged(QStringLiteral("9")));
}

void TestAutoKill::refusedAnswers_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("reason");
    QTest::addColumn<QString>("line");
    QTest::newRow("401") << 401 << QByteArray("Unauthorized") << "Autokill : invalid credentials.";
    QTest::newRow("500") << 500 << QByteArray("Out of order")
                         << "AutoKill : Unhandled HTTP response : code= 500  reason= \"Out of order\"";
    QTest::newRow("no answer") << 0 << QByteArray()
                               << "AutoKill : Unhandled HTTP response : code= 0  reason= \"\"";
}

void TestAutoKill::refusedAnswers()
{
    QFETCH(int, code);
    QFETCH(QByteArray, reason);
    QFETCH(QString, line);
    HttpServer server(&m_certificates);
    m_file.setKey(QStringLiteral("autokill_url"), server.url());
    server.answer = [=](const HttpServer::Request &) { return HttpServer::Answer{code, reason, "{}"}; };
    LogCapture log;
    Poller poller;
    poller.start();
    QTRY_COMPARE(log.texts(QtInfoMsg), QStringList(line));
    QVERIFY(!poller.isFlagged(QStringLiteral("9")));
    QVERIFY(!poller.isFlagged(QString()));
}

void TestAutoKill::ignoresTheAnswerAfterAnUnexpectedOne()
{
    HttpServer server(&m_certificates);
    m_file.setKey(QStringLiteral("autokill_url"), server.url());
    server.answer = [](const HttpServer::Request &request) {
        return request.method == "POST" ? HttpServer::Answer{500, "No", {}}
                                        : HttpServer::Answer{200, "OK", "late"};
    };
    LogCapture log;
    Poller poller;
    poller.start();
    QTRY_COMPARE(log.count(QStringLiteral("code= 500")), 1);
    poller.fetchNow();
    QTRY_COMPARE(
        log.texts(QtInfoMsg).last(), QStringLiteral("Current status :  2  got ignored reply :  \"late\""));
    QCOMPARE(server.requests.size(), 2);
}

void TestAutoKill::answersThatAreNoJson()
{
    HttpServer server(&m_certificates);
    m_file.setKey(QStringLiteral("autokill_url"), server.url());
    server.answer = [](const HttpServer::Request &) { return HttpServer::Answer{200, "OK", "<html>"}; };
    LogCapture log;
    Poller poller;
    poller.start();
    QTRY_COMPARE(server.requests.size(), 2);
    QCOMPARE(server.requests.last().headers.value("authorization"), QByteArray("Bearer"));
    QVERIFY(!poller.isFlagged(QString()));
    QVERIFY(log.texts().isEmpty());
}

void TestAutoKill::refusesOlderTls()
{
    HttpServer server(&m_certificates);
    server.setProtocol(QSsl::TlsV1_2);
    m_file.setKey(QStringLiteral("autokill_url"), server.url());
    LogCapture log;
    Poller poller;
    poller.start();
    QTRY_COMPARE(log.count(QStringLiteral("AutoKill : Unhandled HTTP response : code= 0 ")), 1);
    QVERIFY(server.requests.isEmpty());
}

void TestAutoKill::addresses_data()
{
    QTest::addColumn<QString>("address");
    QTest::newRow("http") << "http://127.0.0.1:1";
    QTest::newRow("no scheme") << "127.0.0.1";
    QTest::newRow("path") << "https://127.0.0.1:1/api";
    QTest::newRow("user") << "https://me@127.0.0.1:1";
    QTest::newRow("port") << "https://127.0.0.1:99999";
    QTest::newRow("empty") << "";
}

void TestAutoKill::addresses()
{
    QFETCH(QString, address);
    m_file.setKey(QStringLiteral("autokill_url"), address);
    LogCapture log;
    Poller poller;
    poller.start();
    QCOMPARE(log.texts(),
        QStringList(QStringLiteral("AutoKill : autokill_url is no https address, nothing is sent.")));
    QVERIFY(!poller.findChild<QObject *>());
}

QTEST_GUILESS_MAIN(TestAutoKill)
#include "tst_autokill.moc"
