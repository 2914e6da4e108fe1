#include "config/ConfigKeys.h"
#include "support/LogCapture.h"
#include "support/PubSubOutput.h"

Q_DECLARE_METATYPE(HttpServer::Answer)

using Answer = HttpServer::Answer;
using Output = PubSubOutput;

class TestPubSub : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void publishesAtOnceAndTouchesNoDisk();
    void keepsWhatFails_data();
    void keepsWhatFails();
    void refusedTokenIsRenewedOnce();
    void mendedRowIsReadAgain();
    void refusedMessageStandsAlone();
    void lostStatusIsWrittenLater();
    void sendsBatchesSideBySide();
    void hearsOutASlowServer();
    void renewsTheTokenBeforeItEnds();
    void signsWithTheServersTime();
    void lateMessagesComeToTheDisk();
    void stopKeepsEverything();

private:
    TestDatabase m_file;
    TestCertificates m_certificates;
    TestCredential m_key;
};

void TestPubSub::initTestCase()
{
    ConfigDatabase::getInstance(m_file.path());
    m_file.run("CREATE TABLE shown (id, status)"_s); // every status, however short
    m_file.run("CREATE TRIGGER shows AFTER UPDATE OF status ON data_forwarder BEGIN"
               " INSERT INTO shown VALUES (new.ids, new.status); END"_s);
}

void TestPubSub::publishesAtOnceAndTouchesNoDisk()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(output.startWithToken());
    QTRY_COMPARE(output.status(), 3);
    output.say(QByteArray("\0\xff\"é", 5));
    QTRY_COMPARE(output.texts().size(), 1);
    const HttpServer::Request request = output.publishes().first();
    QCOMPARE(request.headers.value("content-type"), QByteArray("application/json"));
    QCOMPARE(request.headers.value("authorization"), QByteArray("Bearer t0k"));
    const QJsonObject message = messagesOf(request).first().toObject();
    const QByteArray data = message.value("data"_s).toString().toLatin1();
    QCOMPARE(QByteArray::fromBase64(data).toBase64(), data); // with its padding
    const QJsonObject json = jsonOf(message);
    QCOMPARE(json.size(), 10);
    QCOMPARE(json.value("rawData"_s).toString(), QString::fromUtf8("\0\xff\"é", 5));
    QCOMPARE(json.value("radioModel"_s).toString(), "ICF-4162"_s);
    const QString uuid = output.stored("SELECT uuid FROM state"_s);
    QVERIFY(!QUuid(uuid).isNull());
    const QJsonObject expected{{"outbox"_s, uuid}, {"sequence"_s, "1"_s},
        {"gateway"_s, QHostInfo::localHostName()}, {"port"_s, "ttyUSB0"_s}, {"trx"_s, "RX"_s}};
    QCOMPARE(message.value("attributes"_s).toObject(), expected);
    QTRY_COMPARE(output.status(), 3);

    const QByteArray before = m_file.readFile(QFileInfo(output.path()).fileName() + "-wal"_s);
    output.say(2, 9);
    QTRY_COMPARE(output.texts().mid(1), numbers(2, 9));
    m_file.setKey(OWNER_EMAIL_KEY, "chef@example.org"_s);
    QTest::qWait(1100); // the owner is asked for once a second
    output.say("10");
    QTRY_COMPARE(output.texts().size(), 10);
    const QJsonObject last = jsonOf(messagesOf(output.publishes().last()).last().toObject());
    QCOMPARE(last.value("owner_email"_s).toString(), "chef@example.org"_s);
    QTest::qWait(600);
    QCOMPARE(m_file.readFile(QFileInfo(output.path()).fileName() + "-wal"_s), before);
    QCOMPARE(output.waiting(), "0"_s);
}

void TestPubSub::keepsWhatFails_data()
{
    QTest::addColumn<Answer>("answer");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<int>("rest");

    const QString foreign = "the answer is no publish answer"_s;
    QTest::newRow("no answer") << Answer{0} << "Connection closed"_s << 0;
    QTest::newRow("silence") << Answer{-1} << "no whole answer in time"_s << 390;
    QTest::newRow("408") << refusal(408) << "408 no"_s << 0;
    QTest::newRow("429") << Answer{429, {}, "Too many", 0, 0, "Retry-After: 1\r\n"} << "429 Too many"_s
                         << 990;
    QTest::newRow("500") << Answer{500, "<html>", "Broken"} << "500 Broken"_s << 0;
    QTest::newRow("503") << refusal(503, "a\\nb") << "503 a b"_s << 0;
    QTest::newRow("a page") << Answer{200, "<html>"} << foreign << 0;
    QTest::newRow("too few") << Answer{200, R"({"messageIds":[]})"} << foreign << 0;
    QTest::newRow("endless") << Answer{200, QByteArray(3000000, ' ')} << "no whole answer in time"_s << 0;
    QTest::newRow("a 400 of another") << Answer{400, "<html>", "Bad"} << "400 Bad"_s << 0;
    QTest::newRow("a 400 that was cut") << Answer{400, {}, "Bad"} << "400 Bad"_s << 0;
    QTest::newRow("billing") << Answer{400,
        R"({"error":{"message":"no billing","status":"FAILED_PRECONDITION"}})", "Bad"}
                             << "project \"proj\", topic \"topic\" : 400 no billing"_s << 290;
    QTest::newRow("403") << refusal(403) << "project \"proj\", topic \"topic\" : 403 no"_s << 290;
    QTest::newRow("a page of 404") << Answer{404, "<html>", "Gone"}
                                   << "project \"proj\", topic \"topic\" : 404 Gone"_s << 290;
    QTest::newRow("404") << refusal(404) << "project \"proj\", topic \"topic\" : 404 no"_s << 290;
}

void TestPubSub::keepsWhatFails()
{
    QFETCH(Answer, answer);
    QFETCH(QString, reason);
    QFETCH(int, rest);
    Output output(m_file, m_certificates, m_key);
    QVERIFY(output.startWithToken());
    output.nextAnswers = {answer, answer};
    LogCapture log;
    QElapsedTimer clock;
    clock.start();
    output.say("kept");
    QTRY_COMPARE_WITH_TIMEOUT(output.texts(), QStringList("kept"_s), 8000);
    QVERIFY2(clock.elapsed() >= 2LL * rest, qPrintable(QString::number(clock.elapsed())));
    QTRY_COMPARE(output.status(), 3);
    QVERIFY(
        m_file.run("SELECT group_concat(status) FROM shown WHERE id = ?"_s, {output.id}).endsWith("4,3"_s));
    const QString line = log.text().remove(u'\\');
    QCOMPARE(line.count("nothing is accepted : \""_s + reason), 1);
    QTRY_COMPARE(output.waiting(), "0"_s);
}

void TestPubSub::refusedTokenIsRenewedOnce()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(output.startWithToken());
    output.nextAnswers = {refusal(401), refusal(401)};
    output.token.body.replace("t0k", "second");
    LogCapture log;
    output.say("one");
    QTRY_COMPARE(output.texts(), QStringList("one"_s));
    QCOMPARE(output.tokenRequests(), 3); // the first 401 is no trouble, the second one is
    QCOMPARE(log.count("nothing is accepted"_s), 1);
    QCOMPARE(output.publishes().last().headers.value("authorization"), QByteArray("Bearer second"));
}

void TestPubSub::mendedRowIsReadAgain()
{
    Output output(m_file, m_certificates, m_key);
    m_file.run("UPDATE data_forwarder SET secret = '', context = 'no topic' WHERE ids = ?"_s, {output.id});
    LogCapture log;
    output.start();
    output.say("one");
    QTRY_COMPARE(log.count("the secret holds no credential with an RSA key"_s), 1);
    QTRY_COMPARE(output.status(), 4);
    m_file.run("UPDATE data_forwarder SET secret = ? WHERE ids = ?"_s,
        {m_key.secret(output.server.url("/token"_s)), output.id});
    QTRY_COMPARE(log.count("there can be no topic of the name"_s), 1);
    m_file.run("UPDATE data_forwarder SET context = 'topic', target = 'http://192.0.2.1' WHERE ids = ?"_s,
        {output.id});
    QTRY_COMPARE(log.count("an endpoint on another machine begins with https://"_s), 1);
    output.token = {400, R"({"error":"invalid_grant","error_description":"bad\nkey"})"};
    m_file.run("UPDATE data_forwarder SET target = ? WHERE ids = ?"_s, {output.server.url(), output.id});
    QTRY_COMPARE(log.count("no access token: invalid_grant: bad key"_s), 1);
    output.token = {200, "{}"};
    QTRY_COMPARE(log.count("no access token: the answer holds no access token"_s), 1);
    output.token = {200, R"({"access_token":"t0k"})"};
    QTRY_COMPARE(output.texts(), QStringList("one"_s));

    const int tokens = output.tokenRequests();
    output.nextAnswers = QList<Answer>{{503}, {503}, {503}, {503}, {503}, {503}, {503}};
    output.say("two");
    QTRY_COMPARE_WITH_TIMEOUT(output.texts().size(), 2, 10000);
    QVERIFY(output.tokenRequests() > tokens); // with a token that may serve, too
}

void TestPubSub::refusedMessageStandsAlone()
{
    Output output(m_file, m_certificates, m_key);
    output.token.code = 503;
    output.start();
    output.say(1, 9);
    QTRY_COMPARE(output.waiting(), "9"_s);
    output.server.respond = [&](const HttpServer::Request &request) {
        for (const QJsonValue message : messagesOf(request)) {
            if (textOf(message) == "5"_s)
                return refusal(400, "not this");
        }
        return output.answer(request);
    };
    output.token.code = 200;
    QTRY_COMPARE(output.texts().size(), 8);
    QCOMPARE(output.texts(), numbers(1, 4) + numbers(6, 9));
    QTRY_COMPARE(output.waiting(), "0"_s);
    QCOMPARE(output.stored("SELECT sequence || ':' || reason FROM refused"_s), "5:400 not this"_s);
    QCOMPARE(output.stored("SELECT refused FROM state"_s), "1"_s);

    // Where a hundred are refused it is hardly they: the row may be wrong, and is read again.
    const int tokens = output.tokenRequests();
    output.server.respond = [&](const HttpServer::Request &request) {
        return request.path == "/token" ? output.token : refusal(400, "wrong project");
    };
    output.say(10, 109);
    QTRY_VERIFY_WITH_TIMEOUT(output.tokenRequests() > tokens, 20000);
}

void TestPubSub::lostStatusIsWrittenLater()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(output.startWithToken());
    QTRY_COMPARE(output.status(), 3);
    m_file.run("CREATE TRIGGER full BEFORE UPDATE ON data_forwarder BEGIN SELECT RAISE(FAIL, 'full'); END"_s);
    LogCapture log;
    output.nextAnswers = {refusal(403), refusal(403), refusal(403)};
    output.say("one");
    QTRY_COMPARE(log.count("updateForwarderStatus"_s), 1);
    m_file.run("DROP TRIGGER full"_s);
    QCOMPARE(output.status(), 3);
    for (QTimer *timer : output.forwarder->findChildren<QTimer *>()) {
        if (timer->interval() == 60000)
            timer->start(0);
    }
    QTRY_COMPARE_WITH_TIMEOUT(output.status(), 4, 500); // before one is accepted
}

void TestPubSub::sendsBatchesSideBySide()
{
    Output output(m_file, m_certificates, m_key);
    output.token.code = 503;
    output.start();
    output.say(1, 1900);
    QTRY_COMPARE(output.waiting(), "1900"_s);
    output.delay = 800;
    output.token.code = 200;
    QTRY_COMPARE(output.publishes().size(), 1); // finds out whether the server works
    QTRY_VERIFY(output.publishes().size() > 1);
    QTRY_COMPARE_WITH_TIMEOUT(output.publishes().size(), 4, 600); // before the next answer
    QTRY_COMPARE_WITH_TIMEOUT(output.texts(), numbers(1, 1900), 15000);
    QList<int> sizes;
    for (const HttpServer::Request &request : output.publishes()) {
        sizes.append(messagesOf(request).size());
        QVERIFY(request.body.size() <= 1000000);
    }
    std::sort(sizes.begin(), sizes.end());
    QCOMPARE(sizes, (QList<int>{400, 500, 500, 500}));
    output.delay = 0;
    output.say(QByteArray(900000, 'x')); // goes alone
    output.say(1901, 1901);
    QTRY_COMPARE(output.texts().size(), 1902);
    QCOMPARE(messagesOf(output.publishes().at(4)).size(), 1);
}

void TestPubSub::hearsOutASlowServer()
{
    Output output(m_file, m_certificates, m_key);
    output.token.delay = 1000; // and as long again: more than what is waited for at first
    output.delay = 2000;
    output.start();
    output.say("slow");
    QTRY_COMPARE(output.waiting(), "1"_s);
    QTRY_COMPARE_WITH_TIMEOUT(output.waiting(), "0"_s, 12000);
}

void TestPubSub::renewsTheTokenBeforeItEnds()
{
    Output output(m_file, m_certificates, m_key);
    output.token.body = R"({"access_token":"t0k","expires_in":6})";
    QVERIFY(output.startWithToken());
    QElapsedTimer clock;
    clock.start();
    output.token = {503};
    QTRY_COMPARE(output.status(), 3);
    m_file.run(
        "UPDATE data_forwarder SET status = 0 WHERE ids = ?"_s, {output.id}); // as a restored file has it
    QTRY_COMPARE_WITH_TIMEOUT(output.tokenRequests(), 2, 8000);
    QCOMPARE(output.status(), 3);
    QTRY_VERIFY(output.tokenRequests() > 2); // and another try while there is time
    QVERIFY2(clock.elapsed() >= 5000 && clock.elapsed() < 5900, qPrintable(QString::number(clock.elapsed())));
    output.say("the old one serves");
    QTRY_COMPARE(output.texts().size(), 1);
}

void TestPubSub::signsWithTheServersTime()
{
    Output output(m_file, m_certificates, m_key);
    const QDateTime future = QDateTime::currentDateTimeUtc().addDays(100);
    const QByteArray date =
        QLocale::c().toString(future, "'Date: 'ddd, dd MMM yyyy hh:mm:ss 'GMT'"_s).toLatin1() + "\r\n";
    output.token = {400, R"({"error":"invalid_grant"})", "Bad", 0, 0, date};
    LogCapture log;
    output.start();
    QTRY_VERIFY(output.tokenRequests() >= 2);
    const QByteArray assertion = output.server.requestsTo("/token").at(1).body.split('=').last();
    const QByteArray claims =
        QByteArray::fromBase64(assertion.split('.').at(1), QByteArray::Base64UrlEncoding);
    const double issued = QJsonDocument::fromJson(claims).object().value("iat"_s).toDouble();
    QVERIFY(qAbs(issued - double(future.toSecsSinceEpoch())) < 10);
    QTRY_COMPARE(log.count("s behind the server's, which is used to sign"_s), 1);
    QTRY_VERIFY(output.tokenRequests() > 3);
    QCOMPARE(log.count("The clock of this machine is"_s), 1);
}

void TestPubSub::lateMessagesComeToTheDisk()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(output.startWithToken());
    output.delay = 350;
    QElapsedTimer clock;
    clock.start();
    output.nextAnswers = {{503}};
    output.say("one");
    QTRY_COMPARE(output.waiting(), "1"_s);
    QVERIFY2(clock.elapsed() > 250 && clock.elapsed() < 700, qPrintable(QString::number(clock.elapsed())));
    QTRY_COMPARE(output.texts(), QStringList("one"_s));
    QTRY_COMPARE(output.waiting(), "0"_s);
    QCOMPARE(output.stored("SELECT sequence FROM message"_s), QString());

    output.delay = 2000;
    for (int i = 0; i < 9; ++i) { // more that come in the meantime put nothing off
        output.say("more");
        QTest::qWait(100);
    }
    QVERIFY2(output.waiting().toInt() > 2, qPrintable(output.waiting()));
}

void TestPubSub::stopKeepsEverything()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(output.startWithToken());
    output.nextAnswers = {{-1}};
    output.say(1, 3);
    emit LongWait::getInstance()->begins();
    QCOMPARE(output.waiting(), "3"_s);
    output.say(4, 7);
    QElapsedTimer clock;
    clock.start();
    output.forwarder.reset();
    QVERIFY(clock.elapsed() < 1000);
    QCOMPARE(output.waiting(), "7"_s);
    output.nextAnswers.clear();
    output.start();
    output.say("8");
    QTRY_COMPARE(output.texts(), numbers(1, 8));
    QCOMPARE(output.copies, 8);
    QCOMPARE(output.uuids.size(), 1);
}

QTEST_GUILESS_MAIN(TestPubSub)
#include "tst_pubsub.moc"
