#include "forwarders/OutboxFiles.h"
#include "forwarders/Sqlite.h"
#include "support/Daemon.h"
#include "support/HttpServer.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

/// The daemon against the cloud provider's own Pub/Sub emulator, where its package is installed.
class TestEmulator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void publishedFramesCanBePulled_data();
    void publishedFramesCanBePulled();

private:
    QJsonObject request(const QByteArray &verb, const QString &path, const QJsonObject &body = {});
    QJsonObject pull(const QString &rawData);

    QTemporaryDir m_folder;
    QProcess m_emulator;
    QNetworkAccessManager m_network;
    QString m_url;
    QMap<QString, QJsonObject> m_messages; // by rawData
    QMap<QString, QJsonObject> m_attributes; // the same
};

void TestEmulator::initTestCase()
{
    QProcess dpkg;
    dpkg.start("dpkg"_s, {"-L"_s, "google-cloud-cli-pubsub-emulator"_s});
    dpkg.waitForFinished();
    const QStringList files = QString::fromUtf8(dpkg.readAllStandardOutput()).split(u'\n');
    const QString jar = files.filter(QRegExp("-all\\.jar$"_s)).value(0);
    if (jar.isEmpty() || !QFile::exists(jar))
        QSKIP("the Pub/Sub emulator is not installed");

    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    const QString port = QString::number(probe.serverPort());
    probe.close();
    m_url = "http://127.0.0.1:"_s + port;
    m_emulator.setProcessChannelMode(QProcess::MergedChannels);
    m_emulator.setWorkingDirectory(m_folder.path());
    m_emulator.start("java"_s, {"-jar"_s, jar, "--host=127.0.0.1"_s, "--port="_s + port});
    if (!m_emulator.waitForStarted())
        QSKIP("the Pub/Sub emulator needs java");
    QByteArray printed;
    QTRY_VERIFY_WITH_TIMEOUT((printed += m_emulator.readAll()).contains("Server started"), 20000);

    request("PUT", "topics/topic"_s);
    const QJsonObject subscription =
        request("PUT", "subscriptions/sub"_s, {{"topic"_s, "projects/proj/topics/topic"_s}});
    QCOMPARE(subscription.value("name"_s).toString(), "projects/proj/subscriptions/sub"_s);
}

void TestEmulator::cleanupTestCase()
{
    m_emulator.kill();
    m_emulator.waitForFinished();
}

QJsonObject TestEmulator::request(const QByteArray &verb, const QString &path, const QJsonObject &body)
{
    QNetworkRequest request(QUrl(m_url + "/v1/projects/proj/"_s + path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json"_s);
    const QScopedPointer<QNetworkReply> reply(
        m_network.sendCustomRequest(request, verb, QJsonDocument(body).toJson()));
    if (!QTest::qWaitFor([&] { return reply->isFinished(); }))
        qWarning("no answer to %s", qPrintable(path));
    return QJsonDocument::fromJson(reply->readAll()).object();
}

/// The message with this text; empty while it has not come.
QJsonObject TestEmulator::pull(const QString &rawData)
{
    const QJsonObject answer =
        request("POST", "subscriptions/sub:pull"_s, {{"maxMessages"_s, 100}, {"returnImmediately"_s, true}});
    for (const QJsonValue entry : answer.value("receivedMessages"_s).toArray()) {
        const QByteArray data = entry["message"_s]["data"_s].toString().toLatin1();
        const QJsonObject message = QJsonDocument::fromJson(QByteArray::fromBase64(data)).object();
        m_messages.insert(message.value("rawData"_s).toString(), message);
        m_attributes.insert(
            message.value("rawData"_s).toString(), entry["message"_s]["attributes"_s].toObject());
        request("POST", "subscriptions/sub:acknowledge"_s, {{"ackIds"_s, QJsonArray{entry["ackId"_s]}}});
    }
    return m_messages.value(rawData);
}

void TestEmulator::publishedFramesCanBePulled_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind : {"GCP", "PUBSUB"})
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

void TestEmulator::publishedFramesCanBePulled()
{
    QFETCH(QString, kind);
    m_messages.clear();
    HttpServer tokens;
    tokens.otherAnswer.body = R"({"access_token":"t0k"})";
    const TestDatabase file;
    FreshDatabase made(file.path());
    file.run("DELETE FROM data_forwarder"_s);
    file.setKey("owner_email"_s, "chef@example.org"_s);
    file.setKey("owner_dept"_s, "Équipe 4"_s);
    const int id =
        file.addForwarder(kind, m_url, 0, TestCredential().secret(tokens.url("/token"_s)), "topic"_s);
    PluggedRadio radio(19200, "30790001"_s);
    file.addRadio(radio.portName(), "van"_s);

    const QDateTime start = QDateTime::currentDateTimeUtc();
    Daemon daemon;
    daemon.start({"-c"_s, file.path()});
    QTRY_VERIFY_WITH_TIMEOUT(radio.isIdle(), 20000);
    const QString frame = "*NTF,DPMR,RXVCALL,1,2,3,4,é?>"_s;
    QVERIFY(radio.hear(frame.toUtf8()));
    QJsonObject message;
    QTRY_VERIFY(!(message = pull(frame)).isEmpty());
    const QDateTime date =
        QDateTime::fromString(message.take("transmissionDate"_s).toString(), Qt::ISODateWithMs);
    QVERIFY(date >= start && date <= QDateTime::currentDateTimeUtc());
    const QJsonObject expected{{"port"_s, radio.portName()}, {"portDesc"_s, "van"_s},
        {"radioBand"_s, "VHF"_s}, {"radioModel"_s, "IC-FR5100"_s}, {"trx"_s, "RX"_s}, {"rawData"_s, frame},
        {"source"_s, QHostInfo::localHostName()}, {"owner_email"_s, "chef@example.org"_s},
        {"owner_dept"_s, "Équipe 4"_s}};
    QCOMPARE(message, expected);
    QJsonObject attributes = m_attributes.value(frame);
    if (kind == "PUBSUB"_s) {
        SqliteConnection outbox(outboxPath(file.path(), id), SQLITE_OPEN_READONLY, 1000);
        SqliteStatement uuid(outbox, "SELECT uuid FROM state");
        QVERIFY(uuid.next());
        QVERIFY(attributes.take("sequence"_s).toString().toInt() > 1);
        const QJsonObject expectedAttributes{{"outbox"_s, QString::fromLatin1(uuid.bytes(0))},
            {"gateway"_s, QHostInfo::localHostName()}, {"port"_s, radio.portName()}, {"trx"_s, "RX"_s}};
        QCOMPARE(attributes, expectedAttributes);
    } else {
        QVERIFY(attributes.isEmpty());
    }
    QTRY_COMPARE(pull("*GET,INFO,COMMENT,1"_s).value("trx"_s).toString(), "TX"_s);
    QCOMPARE(daemon.end(), 0);
}

QTEST_GUILESS_MAIN(TestEmulator)
#include "tst_emulator.moc"
