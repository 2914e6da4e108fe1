#include "autokill/AutoKill.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/TestDatabase.h"

#include <memory>

namespace {

/// A poller of its own, as a new process would have it.
class Poller : public AutoKill
{
public:
    void refreshNow() { QMetaObject::invokeMethod(this, "refresh"); }
};

constexpr char loginPath[] = "/api/auth";
constexpr char listPath[] =
    "/api/ressource?limit=100&offset=0&type=dpmr&attributeName=autokill&attributeValue=true";

} // namespace

class TestAutoKill : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void init();
    void logsInFetchesAndForgets();
    void refusals();
    void overtakenCyclesSayNothing();
    void addresses();

private:
    TestDatabase m_file;
    TestCertificates m_certificates;
    std::unique_ptr<HttpServer> m_server;
};

void TestAutoKill::init()
{
    m_server = std::make_unique<HttpServer>(&m_certificates);
    m_file.setKey("autokill_url"_s, m_server->url("/"_s));
    m_file.setKey("autokill_enabled"_s, "tRuE"_s);
    m_file.setKey("autokill_user"_s, "u%2\"é"_s);
    m_file.setKey("autokill_pwd"_s, "secret"_s);
}

void TestAutoKill::logsInFetchesAndForgets()
{
    m_server->answers[loginPath] = {200, R"({"accessToken":"t0k%1"})"};
    m_server->answers[listPath] = {200, R"({"entities":[{"externalId":"Ab"},{"externalId":"9"}]})"};
    auto lock = std::make_unique<OtherProgram>(m_file);
    Poller poller;
    poller.startIfEnabled();
    lock.reset();
    QTRY_VERIFY(poller.isFlagged("Ab"_s));
    QVERIFY(poller.isFlagged("9"_s) && !poller.isFlagged("ab"_s) && !poller.isFlagged(QString()));

    const HttpServer::Request login = m_server->requestsTo(loginPath).value(0);
    QCOMPARE(login.body, QByteArray("{\"username\":\"u%2\"é\",\"password\":\"secret\"}"));
    QCOMPARE(login.headers.value("accept-encoding"), QByteArray("identity"));
    QCOMPARE(login.headers.value("content-type"), QByteArray("application/json"));
    QCOMPARE(login.headers.value("server"), QByteArray("accept:application/json; charset=UTF-8"));
    const HttpServer::Request query = m_server->requestsTo(listPath).value(0);
    QCOMPARE(query.headers.value("authorization"), QByteArray("Bearer t0k%1"));
    m_file.setKey("autokill_enabled"_s, "false"_s);
    QVERIFY(!poller.isFlagged("Ab"_s));
    m_file.setKey("autokill_enabled"_s, "true"_s);
    QVERIFY(QFile::rename(m_file.path(), m_file.file("hidden"_s)));
    QVERIFY(!poller.isFlagged("7"_s) && !QFile::exists(m_file.path())); // the file is not opened for it
    QVERIFY(QFile::rename(m_file.file("hidden"_s), m_file.path()));
    m_server->answers[loginPath] = {200, "<html>"}; // asks for the list all the same, without a token
    poller.refreshNow();
    QVERIFY(!poller.isFlagged("9"_s));
    QTRY_VERIFY(poller.isFlagged("9"_s));
    QCOMPARE(m_server->requests.last().headers.value("authorization"), QByteArray("Bearer"));
}

void TestAutoKill::refusals()
{
    const QString unhandled = "AutoKill : Unhandled HTTP response : code= %1  reason= \"%2\""_s;
    const QPair<HttpServer::Answer, QString> cases[] = {
        {{401, "{}", "Unauthorized"}, "Autokill : invalid credentials."_s},
        {{500, "{}", "Out of order"}, unhandled.arg("500"_s, "Out of order"_s)},
        {{0, {}, {}}, unhandled.arg("0"_s, QString())}, {{200, "no JSON"}, QString()},
        {{-1, {}, {}}, unhandled.arg("0"_s, QString())}, // silence
        {{200, QByteArray(2 << 20, ' ')}, unhandled.arg("0"_s, QString())}, // an endless one
        {{200, "{", "OK", 1}, unhandled.arg("0"_s, QString())}}; // an answer that takes its time
    for (const auto &[answer, line] : cases) {
        m_server->otherAnswer = answer;
        m_server->requests.clear();
        LogCapture log;
        Poller poller;
        poller.start();
        QTRY_VERIFY(m_server->requests.size() >= (answer.body == "no JSON" ? 2 : 1));
        for (QTimer *timer : poller.findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly)) {
            QVERIFY(timer->isActive());
            QCOMPARE(timer->interval(), timer->isSingleShot() ? 60000 : 300000);
            if (timer->isSingleShot() && (answer.code == -1 || answer.missing > 0))
                timer->start(300); // as if the minute were nearly over
        }
        QTRY_COMPARE(log.text(), line);
        QVERIFY(!poller.isFlagged("9"_s) && !poller.isFlagged(QString()));
    }

    HttpServer older(&m_certificates);
    older.protocol = QSsl::TlsV1_2;
    m_file.setKey("autokill_url"_s, older.url());
    LogCapture log;
    Poller poller;
    poller.start();
    QTRY_COMPARE(log.count("AutoKill : Unhandled HTTP response : code= 0 "_s), 1);
    QVERIFY(older.requests.isEmpty());

    older.protocol = QSsl::TlsV1_3OrLater;
    older.otherAnswer = {200, "late"}; // ignored, as it follows an unexpected one
    QMetaObject::invokeMethod(&poller, "retrieveDeathNote", Q_ARG(QString, QString()));
    QTRY_VERIFY(log.text().endsWith("\nCurrent status :  2  got ignored reply :  \"late\""_s));
    QCOMPARE(older.requests.size(), 1);
}

void TestAutoKill::overtakenCyclesSayNothing()
{
    LogCapture log;
    Poller poller;
    m_server->otherAnswer.code = -1;
    poller.start();
    for (int cycles = 1; cycles <= 8; ++cycles) { // more than there are connections to one host
        QTRY_COMPARE(m_server->requests.size(), cycles);
        poller.refreshNow();
    }
    m_server->otherAnswer = {200, R"({"entities":[{"externalId":"9"}]})"};
    poller.refreshNow();
    QTRY_VERIFY(poller.isFlagged("9"_s));
    QCOMPARE(log.text(), QString());
}

void TestAutoKill::addresses()
{
    for (const QString &address : {"http://127.0.0.1:1"_s, "https://127.0.0.1:1/api"_s,
             "https://me@127.0.0.1:1"_s, "https://127.0.0.1:99999"_s, "https://127.0.0.1//"_s,
             "https://127.0.0.1?q"_s, "https://"_s, ""_s, "undefined"_s}) {
        m_file.setKey("autokill_url"_s, address);
        LogCapture log;
        Poller poller;
        poller.start();
        const bool isAsked = address == "undefined"_s;
        QCOMPARE(log.text(),
            isAsked
                ? "AutoKill : autokill_url is not configured, asking \"https://resources.example.org\""_s
                : "AutoKill : autokill_url must be https://host or https://host:port, nothing is sent."_s);
        QCOMPARE(poller.findChild<QNetworkAccessManager *>() != nullptr, isAsked);
    }
}

QTEST_GUILESS_MAIN(TestAutoKill)
#include "tst_autokill.moc"
