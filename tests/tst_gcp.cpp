#include "forwarders/GcpDataForwarder.h"
#include "protocol/ActionCommands.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"
#include "serial/MyQSerialPort.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

#include <memory>
#include <vector>

namespace {

constexpr char publishPath[] = "/v1/projects/proj/topics/top%20ic:publish";

QByteArray fromBase64Url(const QByteArray &text)
{
    return QByteArray::fromBase64(text, QByteArray::Base64UrlEncoding);
}

/// The message of a publish request.
QJsonObject messageOf(const HttpServer::Request &request)
{
    const QByteArray data = request.body.mid(int(qstrlen("{'messages':[{'data':'")));
    return QJsonDocument::fromJson(fromBase64Url(data.left(data.indexOf('\'')))).object();
}

/// An output with a token and publish server of its own, and a radio that speaks to it.
struct Output
{
    Output(const TestDatabase &database, const TestCertificates &certificates, const TestCredential &key,
        int patience = 120000)
        : file(database), server(&certificates), secret(key.secret(server.url("/token"_s)))
    {
        server.answers["/token"].body = R"({"access_token":"t0k","expires_in":3599})";
        id = file.addForwarder("GCP"_s, server.url(), 0, secret, "top ic"_s);
        forwarder = std::make_unique<GcpDataForwarder>(nullptr, id, patience);
        plugIn("Équipe"_s, "28940001"_s);
    }

    /// Puts a radio in the place of the one that is there.
    void plugIn(const QString &name, const QString &esn)
    {
        radio = std::make_unique<RecordingLink>(name, "ttyUSB0"_s);
        radio->config()->esn = esn;
        QObject::connect(radio.get(), &RecordingLink::dataReceived, forwarder.get(), &DataForwarder::forward);
        QObject::connect(radio.get(), &RecordingLink::dataSent, forwarder.get(), &DataForwarder::forwardSent);
    }
    void configure(const QString &credential, const QString &target) const
    {
        file.run(
            "UPDATE data_forwarder SET secret = ?, target = ? WHERE ids = ?"_s, {credential, target, id});
    }
    void say(const QByteArray &frame) const
    {
        const auto response = QSharedPointer<UnsollicitedCommandResponse>::create(nullptr, frame);
        response->stampNow();
        emit radio->dataReceived(response);
    }
    /// Asks for a token, unless the period of an earlier request is not over.
    void reconnect() const { QMetaObject::invokeMethod(forwarder.get(), "reconnect"); }
    int tokenRequests() const { return server.requestsTo("/token").size(); }
    bool getsToken() const
    {
        reconnect();
        const bool asked = QTest::qWaitFor([&] { return tokenRequests() == 1; });
        QTest::qWait(100); // the answer is on its way
        return asked;
    }
    QStringList published() const
    {
        QStringList result;
        for (const HttpServer::Request &request : server.requestsTo(publishPath))
            result.append(messageOf(request).value("rawData"_s).toString());
        return result;
    }

    const TestDatabase &file;
    HttpServer server;
    const QString secret;
    int id = -1;
    std::unique_ptr<GcpDataForwarder> forwarder;
    std::unique_ptr<RecordingLink> radio;
};

} // namespace

class TestGcp : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void asksForATokenAndPublishes();
    void postponedMessagesOutliveTheirRadio();
    void withoutATokenMessagesWait();
    void keepsItsAddress();
    void asksAgain();

private:
    void losesNothingThatWaits();

    TestDatabase m_file;
    TestCertificates m_certificates;
    TestCredential m_key;
    std::unique_ptr<Output> m_slow; // its first token takes more than ten seconds, which other tests use
    QList<int> m_requests; // for tokens, shortly before one more is due
};

void TestGcp::initTestCase()
{
    ConfigDatabase::getInstance(m_file.path());
    m_file.setKey("owner_email"_s, "chef@example.org"_s);
    m_slow = std::make_unique<Output>(m_file, m_certificates, m_key);
    m_slow->server.answers["/token"].delay = 5200; // and as long again
    m_slow->reconnect();
    auto *retry = new QTimer(&m_slow->server); // a frame would do the same
    connect(retry, &QTimer::timeout, this, [this] { m_slow->reconnect(); });
    retry->start(100);
    QTimer::singleShot(9000, &m_slow->server, [this] {
        m_requests.append(m_slow->tokenRequests());
        m_slow->server.answers["/token"] = {-1, {}, {}};
    });
}

void TestGcp::asksForATokenAndPublishes()
{
    Output output(m_file, m_certificates, m_key);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    QTRY_COMPARE(output.tokenRequests(), 1); // by itself
    const HttpServer::Request request = output.server.requests.first();
    QCOMPARE(request.headers.value("content-type"), QByteArray("application/x-www-form-urlencoded"));
    const QByteArray grant = "grant_type=urn:ietf:params:oauth:grant-type:jwt-bearer&assertion=";
    QVERIFY(request.body.startsWith(grant));

    const QByteArray assertion = request.body.mid(grant.size());
    QVERIFY(QRegExp("[\\w-]+\\.[\\w-]+\\.[\\w-]+"_s).exactMatch(QString::fromLatin1(assertion)));
    const QList<QByteArray> parts = assertion.split('.');
    QCOMPARE(fromBase64Url(parts.at(0)), QByteArray(R"({"alg":"RS256","kid":"key-1","typ":"JWT"})"));
    const QByteArray claims = fromBase64Url(parts.at(1));
    const auto issued = QJsonDocument::fromJson(claims).object().value("iat"_s).toVariant().toLongLong();
    QVERIFY(issued >= (before + 900) / 1000 && issued <= QDateTime::currentSecsSinceEpoch());
    QCOMPARE(QString::fromUtf8(claims),
        "{\"aud\":\"%1/token\",\"exp\":%2,\"iat\":%3,\"iss\":\"robot@example.org\",\"scope\":"
        "\"https://www.googleapis.com/auth/cloud-platform https://www.googleapis.com/auth/pubsub\"}"_s
            .arg(output.server.url())
            .arg(issued + 1800)
            .arg(issued));

    m_file.writeFile("key.pem"_s, m_key.privateKey);
    m_file.writeFile("input"_s, parts.at(0) + '.' + parts.at(1));
    m_file.writeFile("signature"_s, fromBase64Url(parts.at(2)));
    QCOMPARE(runShell("openssl pkey -in key.pem -pubout -out pub.pem\n"
                      "openssl dgst -sha256 -verify pub.pem -signature signature input"_s,
                 m_file.folder()),
        QByteArray("Verified OK\n"));

    QTest::qWait(100); // the answer is on its way
    output.say(QByteArray("*NTF,\0é>>>???", 14));
    QTRY_COMPARE(output.published().size(), 1);
    const HttpServer::Request publish = output.server.requests.last();
    QCOMPARE(publish.headers.value("content-type"), QByteArray("application/json"));
    QCOMPARE(publish.headers.value("authorization"), QByteArray("Bearer t0k"));
    const QByteArray data = publish.body.mid(22).chopped(4);
    QCOMPARE(publish.body, "{'messages':[{'data':'" + data + "'}]}");
    QVERIFY(QRegExp("[\\w-]+"_s).exactMatch(QString::fromLatin1(data)));

    const QString date = messageOf(publish).value("transmissionDate"_s).toString();
    QVERIFY(date.endsWith(u'Z') && QDateTime::fromString(date, Qt::ISODateWithMs).isValid());
    QCOMPARE(QString::fromUtf8(fromBase64Url(data)),
        "{\"owner_dept\":\"undefined\",\"owner_email\":\"chef@example.org\",\"port\":\"ttyUSB0\","
        "\"portDesc\":\"Équipe\",\"radioBand\":\"UHF\",\"radioModel\":\"ICF-4162\",\"rawData\":"
        "\"*NTF,\\u0000é>>>???\",\"source\":\"%1\",\"transmissionDate\":\"%2\",\"trx\":\"RX\"}"_s.arg(
            QHostInfo::localHostName(), date));
    QTRY_COMPARE(m_file.forwarderStatus(output.id), 3);

    LogCapture log; // a reply after the end does nothing
    output.server.otherAnswer.code = -1;
    output.say("on its way");
    QTRY_COMPARE(output.published().size(), 2);
    output.forwarder.reset();
    QTest::qWait(100);
    QCOMPARE(log.text(), QString());
}

void TestGcp::postponedMessagesOutliveTheirRadio()
{
    Output output(m_file, m_certificates, m_key);
    LogCapture log;
    const auto text = QSharedPointer<DisplayTextCommand>::create(
        output.radio.get(), "Hello <name> and good morning"_s, 5000);
    emit output.radio->dataSent(text);
    const auto kill = QSharedPointer<AnalogKillCommand>::create(nullptr, "123"_s);
    QCOMPARE(kill->announcedText(), "*SET,5T,TXCODE,123DC"_s);
    emit output.radio->dataSent(kill); // is asked for its text, which then grows, when it is published
    MyQSerialPort closedPort;
    text->execute(&closedPort); // a long text moves on; what is published is what was announced
    kill->execute(&closedPort);
    text->setParent(nullptr);
    output.say("one");
    output.say("two");
    const QString line = "forwarder id= %1  postponed frame : forwarder is not ready ( %2 )"_s.arg(output.id);
    const QString killed = "PCCMDV2 Command to send :  \"*SET,5T,TXCODE,123DC\""_s;
    QCOMPARE(log.text(QtInfoMsg),
        QStringList({line.arg(0), line.arg(1), killed, line.arg(0), line.arg(1)}).join(u'\n'));
    output.plugIn("other"_s, QString());
    QVERIFY(output.getsToken());
    QVERIFY2(output.published().isEmpty(), "the token alone sends nothing");

    QElapsedTimer clock;
    clock.start();
    output.say("live");
    QTRY_COMPARE(output.published().size(), 5);
    QVERIFY(clock.elapsed() >= 900);
    QStringList messages;
    for (const HttpServer::Request &request : output.server.requestsTo(publishPath)) {
        const QJsonObject message = messageOf(request);
        QStringList fields;
        for (const QString &key : {"portDesc"_s, "radioModel"_s, "trx"_s, "rawData"_s})
            fields.append(message.value(key).toString());
        messages.append(fields.join(u'|'));
    }
    QCOMPARE(messages.takeFirst(), "other|unknown|RX|live"_s);
    messages.sort(); // posted in one go: the server may see them in any order
    QCOMPARE(messages,
        (QStringList{"Équipe|ICF-4162|RX|one"_s, "Équipe|ICF-4162|RX|two"_s,
            "Équipe|ICF-4162|TX|*SET,5T,TXCODE,123DCDC"_s,
            "Équipe|ICF-4162|TX|*SET,UI,TEXT,Hello Équipe and good morning"_s}));
}

void TestGcp::withoutATokenMessagesWait()
{
    const QString refused = "GcpDataForwarder : invalid credentials."_s;
    const QString unhandled = "GcpDataForwarder : Unhandled HTTP response : code= %1  reason= \"%2\""_s;
    const QString noToken = "GcpDataForwarder : the answer holds no access token."_s;
    const QString nothingSent = "forwarder id= %id  nothing is sent : %1"_s;
    const QString noKey = "Unable to parse private key - check GCP secret in configuration"_s;
    struct Case
    {
        QString line;
        HttpServer::Answer answer;
        QByteArray document = "ok"; ///< of the secret, unless it is a good one
        QString target = {}; ///< unless it is the server
    };
    const Case cases[] = {{refused, {401, {}, "Unauthorized"}}, {refused, {403, {}, "Forbidden"}},
        {unhandled.arg(500).arg("Broken"_s), {500, {}, "Broken"}},
        {unhandled.arg(0).arg(QString()), {0, {}, {}}}, {unhandled.arg(0).arg(QString()), {-1, {}, {}}},
        {noToken, {200, "<html>"}}, {noToken, {200, R"({"access_token":"t\r\nX-Evil: 1"})"}}, {noKey, {}, ""},
        {nothingSent.arg("an endpoint on another machine begins with https://"_s), {}, "ok", "http://h"_s},
        {nothingSent.arg("an endpoint is https://HOST or https://HOST:PORT, and nothing else"_s), {}, "ok",
            "https://127.0.0.1/v1"_s},
        {nothingSent.arg("the token_uri is no https address"_s), {},
            QJsonDocument(m_key.document("http://h/token"_s)).toJson()}};

    LogCapture log;
    std::vector<std::unique_ptr<Output>> outputs;
    for (const Case &each : cases) {
        outputs.push_back(std::make_unique<Output>(m_file, m_certificates, m_key, 1000));
        Output &output = *outputs.back();
        output.server.answers["/token"] = each.answer;
        output.configure(
            each.document == "ok" ? output.secret : QString::fromLatin1(each.document.toBase64()),
            each.target.isEmpty() ? output.server.url() : each.target);
        log.clear();
        output.reconnect();
        QTRY_COMPARE(log.text(QtInfoMsg), QString(each.line).replace("%id"_s, QString::number(output.id)));
        QCOMPARE(output.server.requests.isEmpty(), each.line == noKey || each.line.contains("nothing"_s));
        output.say("postponed");

        // What was wrong is mended, without a restart.
        output.server.answers["/token"] = {200, R"({"access_token":"second"})"};
        output.configure(output.secret, output.server.url(each.target.isEmpty() ? ""_s : "/"_s));
        output.server.requests.clear();
        output.reconnect(); // the period of the first request is not over
        QMetaObject::invokeMethod(output.forwarder.get(), "abortReconnect");
        QVERIFY(output.getsToken());
        output.say("live");
    }
    for (const auto &output : outputs) {
        QTRY_COMPARE(output->published(), (QStringList{"live"_s, "postponed"_s}));
        QCOMPARE(output->tokenRequests(), 1);
        QCOMPARE(output->server.requests.last().headers.value("authorization"), QByteArray("Bearer second"));
    }
}

/// A server that is slow, refuses one message and falls silent costs those that were on their way then.
void TestGcp::losesNothingThatWaits()
{
    Output output(m_file, m_certificates, m_key, 1400);
    QVERIFY(output.getsToken());
    const auto say = [&](int first, int last) {
        for (int i = first; i <= last; ++i)
            output.say('m' + QByteArray::number(i));
    };
    output.server.otherAnswer = {200, R"({"access_token":"no"})", "OK", 0, 800}; // and as long again
    say(10, 14);
    QTRY_COMPARE(output.published().size(), 5);
    output.server.otherAnswer = {401, {}, "Unauthorized", 0, 200};
    LogCapture log;
    say(15, 15);
    emit output.radio->dataSent(QSharedPointer<AnalogKillCommand>::create(nullptr, "123"_s));
    say(22, 29);
    QTest::qWait(1800); // what is accepted meanwhile changes nothing
    say(30, 30);
    QCOMPARE(log.text(),
        "GcpDataForwarder : invalid credentials.\n"
        "forwarder id= %1  postponed frame : forwarder is not ready ( 8 )"_s.arg(output.id));

    output.server.otherAnswer.code = 200; // as slowly: six have come before one is answered
    output.server.requests.clear();
    QMetaObject::invokeMethod(output.forwarder.get(), "abortReconnect");
    QVERIFY(output.getsToken());
    say(31, 31);
    QTRY_COMPARE(output.published().size(), 11);
    QStringList first = output.published().mid(0, 7);
    first.sort(); // those that are on their way together may overtake each other
    QCOMPARE(first.join(u' '), "m22 m23 m24 m25 m26 m27 m31"_s);
    QVERIFY(output.published().mid(7).contains("*SET,5T,TXCODE,123DC"_s)); // asked for its text once

    output.server.otherAnswer.code = -1;
    say(32, 39);
    QTRY_COMPARE(log.count("GcpDataForwarder : Unhandled HTTP response : code= 0"_s), 6);
    say(40, 40);
    QVERIFY2(log.text().endsWith("( 2 )"_s), qPrintable(log.text()));
}

void TestGcp::keepsItsAddress()
{
    Output output(m_file, m_certificates, m_key);
    output.server.answers["/token"].delay = 500;
    output.reconnect();
    QTRY_COMPARE(output.tokenRequests(), 1);
    QMetaObject::invokeMethod(output.forwarder.get(), "abortReconnect");
    output.configure({}, {});
    output.reconnect();
    QMetaObject::invokeMethod(output.forwarder.get(), "abortReconnect");
    output.configure(output.secret, "https://127.0.0.1:1"_s);
    output.reconnect();
    QTRY_COMPARE(output.tokenRequests(), 2);
    QTest::qWait(2400); // both tokens come
    output.say("live");
    QTRY_COMPARE(output.published(), QStringList("live"_s));
}

void TestGcp::asksAgain()
{
    Output mended(m_file, m_certificates, m_key);
    mended.configure({}, mended.server.url());
    LogCapture log;
    QTRY_COMPARE(log.count("Unable to parse"_s), 1);
    mended.configure(mended.secret, mended.server.url());
    QMetaObject::invokeMethod(mended.forwarder.get(), "abortReconnect");
    QElapsedTimer clock;
    clock.start();
    mended.say("postponed");
    QTRY_COMPARE_WITH_TIMEOUT(mended.tokenRequests(), 1, 7000); // five seconds later, for the message
    QVERIFY(clock.elapsed() >= 4700);
    QTest::qWait(100); // the answer is on its way
    mended.say("live"); // an accepted one ends the request period
    QTRY_COMPARE(m_file.forwarderStatus(mended.id), 3);
    mended.server.otherAnswer.code = 401;
    mended.say("not kept");
    QTRY_COMPARE(log.count("GcpDataForwarder : invalid credentials."_s), 1);
    QTimer::singleShot(4200, &mended.server, [&] { m_requests.append(mended.tokenRequests()); });

    losesNothingThatWaits();
    QTRY_COMPARE(m_slow->tokenRequests(), 2);
    QTRY_COMPARE(mended.tokenRequests(), 2); // five seconds after the refusal, by itself
    QCOMPARE(m_requests, (QList<int>{1, 1})); // not earlier
    m_slow->server.answers["/token"] = {500, {}, "Overtaken"}; // to the request that is asked again then
    for (auto *connection : m_slow->server.findChildren<QTcpSocket *>())
        connection->abort();
    QTRY_COMPARE(log.count("Overtaken"_s), 1);
    m_slow->say("live");
    QTRY_COMPARE(m_slow->published(), QStringList("live"_s)); // with the token that came after ten seconds

    log.clear();
    m_slow->server.protocol = QSsl::TlsV1_2;
    m_slow->say("not over that");
    QTRY_VERIFY(log.count("Unhandled HTTP response : code= 0"_s) > 1); // the message, and the token
    QCOMPARE(m_slow->server.requests.size(), 4);
}

QTEST_GUILESS_MAIN(TestGcp)
#include "tst_gcp.moc"
