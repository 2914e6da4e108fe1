#include "forwarders/OutboxFiles.h"
#include "forwarders/Sqlite.h"
#include "support/Daemon.h"
#include "support/HttpServer.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

/// The daemon against the cloud provider's own Pub/Sub emulator, where its package is installed.
class TestPubSubEmulator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void publishedFramesCanBePulled();

private:
    QJsonObject request(const QByteArray &verb, const QString &path, const QJsonObject &body = {});
    QJsonObject pull(const QString &topic, const QString &rawData);

    QTemporaryDir m_folder;
    QProcess m_emulator;
    QNetworkAccessManager m_network;
    QString m_url;
    QMap<QString, QJsonObject>
        m_messages; ///< by topic and rawData; "attributes" beside the document's members
};

void TestPubSubEmulator::initTestCase()
{
    const QString jar = QString::fromUtf8(
        runShell("dpkg -L google-cloud-cli-pubsub-emulator | grep -e '-all[.]jar$'"_s).trimmed());
    if (!QFile::exists(jar))
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

    for (const QString &topic : {"gcp"_s, "pubsub"_s}) {
        request("PUT", "topics/"_s + topic);
        const QString name = "subscriptions/"_s + topic;
        const QJsonObject made = request("PUT", name, {{"topic"_s, "projects/proj/topics/"_s + topic}});
        QCOMPARE(made.value("name"_s).toString(), "projects/proj/"_s + name);
    }
}

void TestPubSubEmulator::cleanupTestCase()
{
    m_emulator.kill();
    m_emulator.waitForFinished();
}

QJsonObject TestPubSubEmulator::request(const QByteArray &verb, const QString &path, const QJsonObject &body)
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
QJsonObject TestPubSubEmulator::pull(const QString &topic, const QString &rawData)
{
    const QString path = "subscriptions/"_s + topic;
    const QJsonObject answer =
        request("POST", path + ":pull"_s, {{"maxMessages"_s, 100}, {"returnImmediately"_s, true}});
    for (const QJsonValue entry : answer.value("receivedMessages"_s).toArray()) {
        const QJsonValue message = entry["message"_s];
        const QByteArray data = QByteArray::fromBase64(message["data"_s].toString().toLatin1());
        QJsonObject document = QJsonDocument::fromJson(data).object();
        document["attributes"_s] = message["attributes"_s].toObject();
        m_messages.insert(topic + document.value("rawData"_s).toString(), document);
        request("POST", path + ":acknowledge"_s, {{"ackIds"_s, QJsonArray{entry["ackId"_s]}}});
    }
    return m_messages.value(topic + rawData);
}

void TestPubSubEmulator::publishedFramesCanBePulled()
{
    HttpServer tokens;
    tokens.otherAnswer.body = R"({"access_token":"t0k"})";
    const TestDatabase file;
    FreshDatabase made(file.path());
    file.run("DELETE FROM data_forwarder"_s);
    file.setKey("owner_email"_s, "chef@example.org"_s);
    file.setKey("owner_dept"_s, "Équipe 4"_s);
    const QString secret = TestCredential().secret(tokens.url("/token"_s));
    file.addForwarder("GCP"_s, m_url, 0, secret, "gcp"_s);
    const int id = file.addForwarder("PUBSUB"_s, m_url, 0, secret, "pubsub"_s);
    PluggedRadio radio(19200, "30790001"_s);
    file.addRadio(radio.portName(), "van"_s);

    const QDateTime start = QDateTime::currentDateTimeUtc();
    Daemon daemon;
    daemon.start({"-c"_s, file.path()});
    QTRY_VERIFY_WITH_TIMEOUT(radio.isIdle(), 20000);
    const QString frame = "*NTF,DPMR,RXVCALL,1,2,3,4,é?>"_s;
    QVERIFY(radio.hear(frame.toUtf8()));
    QJsonObject expected{{"port"_s, radio.portName()}, {"portDesc"_s, "van"_s}, {"radioBand"_s, "VHF"_s},
        {"radioModel"_s, "IC-FR5100"_s}, {"trx"_s, "RX"_s}, {"rawData"_s, frame},
        {"source"_s, QHostInfo::localHostName()}, {"owner_email"_s, "chef@example.org"_s},
        {"owner_dept"_s, "Équipe 4"_s}, {"attributes"_s, QJsonObject()}};
    for (const QString &topic : {"gcp"_s, "pubsub"_s}) {
        QJsonObject message;
        QTRY_VERIFY(!(message = pull(topic, frame)).isEmpty());
        const QDateTime date =
            QDateTime::fromString(message.take("transmissionDate"_s).toString(), Qt::ISODateWithMs);
        QVERIFY(date >= start && date <= QDateTime::currentDateTimeUtc());
        if (topic == "pubsub"_s) {
            SqliteConnection outbox(outboxPath(file.path(), id), SQLITE_OPEN_READONLY, 1000);
            SqliteStatement uuid(outbox, "SELECT uuid FROM state");
            QVERIFY(uuid.next());
            const QJsonValue sequence = message.value("attributes"_s)["sequence"_s];
            QVERIFY(sequence.toString().toInt() > 1);
            expected["attributes"_s] = QJsonObject{{"outbox"_s, QString::fromLatin1(uuid.bytes(0))},
                {"gateway"_s, QHostInfo::localHostName()}, {"port"_s, radio.portName()}, {"trx"_s, "RX"_s},
                {"sequence"_s, sequence}};
        }
        QCOMPARE(message, expected);
        QTRY_COMPARE(pull(topic, "*GET,INFO,COMMENT,1"_s).value("trx"_s).toString(), "TX"_s);
    }
    QCOMPARE(daemon.end(), 0);
}

QTEST_GUILESS_MAIN(TestPubSubEmulator)
#include "tst_pubsubemulator.moc"
