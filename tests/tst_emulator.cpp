#include "config/ConfigDatabase.h"
#include "support/Daemon.h"
#include "support/HttpServer.h"
#include "support/TestCredential.h"
#include "support/TestDatabase.h"
#include "tools/radiosim/SimulatedRadio.h"

#include <QDateTime>
#include <QDir>
#include <QHostInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegExp>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

/// The daemon against the cloud provider's own Pub/Sub emulator, where its package is installed.
class TestEmulator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void publishedFramesCanBePulled();

private:
    QJsonObject request(const QByteArray &verb, const QString &path, const QJsonObject &body);
    QList<QJsonObject> pull();

    QTemporaryDir m_folder;
    QProcess m_emulator;
    QNetworkAccessManager m_network;
    QString m_url;
};

void TestEmulator::initTestCase()
{
    QProcess dpkg;
    dpkg.start(
        QStringLiteral("dpkg"), {QStringLiteral("-L"), QStringLiteral("google-cloud-cli-pubsub-emulator")});
    dpkg.waitForFinished();
    const QString jar = QString::fromUtf8(dpkg.readAllStandardOutput())
                            .split(QLatin1Char('\n'))
                            .filter(QRegExp(QStringLiteral("-all\\.jar$")))
                            .value(0);
    if (jar.isEmpty() || !QFile::exists(jar))
        QSKIP("the Pub/Sub emulator is not installed");

    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    const QString port = QString::number(probe.serverPort());
    probe.close();
    m_url = QStringLiteral("http://127.0.0.1:") + port;
    m_emulator.setProcessChannelMode(QProcess::MergedChannels);
    m_emulator.setWorkingDirectory(m_folder.path());
    m_emulator.start(QStringLiteral("java"),
        {QStringLiteral("-jar"), jar, QStringLiteral("--host=127.0.0.1"), QStringLiteral("--port=") + port});
    if (!m_emulator.waitForStarted())
        QSKIP("the Pub/Sub emulator needs java");
    QByteArray printed;
    QVERIFY2(QTest::qWaitFor(
                 [&] {
                     printed += m_emulator.readAll();
                     return printed.contains("Server started");
                 },
                 20000),
        printed.constData());

    request("PUT", QStringLiteral("topics/topic"), {});
    const QJsonObject subscription = request("PUT", QStringLiteral("subscriptions/sub"),
        {{QStringLiteral("topic"), QStringLiteral("projects/proj/topics/topic")}});
    QCOMPARE(subscription.value(QLatin1String("name")).toString(),
        QStringLiteral("projects/proj/subscriptions/sub"));
}

void TestEmulator::cleanupTestCase()
{
    m_emulator.kill();
    m_emulator.waitForFinished();
}

QJsonObject TestEmulator::request(const QByteArray &verb, const QString &path, const QJsonObject &body)
{
    QNetworkRequest request(QUrl(m_url + QStringLiteral("/v1/projects/proj/") + path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    const QScopedPointer<QNetworkReply> reply(
        m_network.sendCustomRequest(request, verb, QJsonDocument(body).toJson()));
    if (!QTest::qWaitFor([&] { return reply->isFinished(); }))
        qWarning("no answer to %s", qPrintable(path));
    return QJsonDocument::fromJson(reply->readAll()).object();
}

QList<QJsonObject> TestEmulator::pull()
{
    QList<QJsonObject> messages;
    const QJsonObject answer = request("POST", QStringLiteral("subscriptions/sub:pull"),
        {{QStringLiteral("maxMessages"), 100}, {QStringLiteral("returnImmediately"), true}});
    QJsonArray acknowledged;
    const QJsonArray received = answer.value(QLatin1String("receivedMessages")).toArray();
    for (const QJsonValue &entry : received) {
        acknowledged.append(entry[QLatin1String("ackId")]);
        const QByteArray data = entry[QLatin1String("message")][QLatin1String("data")].toString().toLatin1();
        messages.append(QJsonDocument::fromJson(QByteArray::fromBase64(data)).object());
    }
    if (!acknowledged.isEmpty())
        request("POST", QStringLiteral("subscriptions/sub:acknowledge"),
            {{QStringLiteral("ackIds"), acknowledged}});
    return messages;
}

void TestEmulator::publishedFramesCanBePulled()
{
    HttpServer tokens;
    tokens.answer = [](const HttpServer::Request &) {
        return HttpServer::Answer{200, "OK", R"({"access_token":"t0k"})"};
    };
    const TestDatabase file;
    ConfigDatabase::getInstance(file.path()); // makes the file
    file.run(QStringLiteral("DELETE FROM data_forwarder"));
    file.setKey(QStringLiteral("owner_email"), QStringLiteral("chef@example.org"));
    file.setKey(QStringLiteral("owner_dept"), QStringLiteral("Équipe 4"));
    file.addForwarder(QStringLiteral("GCP"), m_url, 0,
        QString::fromLatin1(TestCredential().secret(tokens.url() + QStringLiteral("/token"))),
        QStringLiteral("topic"));
    RadioSettings settings;
    settings.esn = QStringLiteral("30790001");
    SimulatedRadio radio(settings);
    QVERIFY(radio.plugIn());
    file.addStaticRadio(radio.portName(), QStringLiteral("van"));

    const QDateTime start = QDateTime::currentDateTimeUtc();
    Daemon daemon;
    daemon.startOn(file.path());
    QTRY_VERIFY_WITH_TIMEOUT(radio.received().size() >= 8, 20000);
    QVERIFY(radio.hear("*NTF,DPMR,RXVCALL,1,2,3,4,é?>"));

    QList<QJsonObject> messages;
    const auto findFrame = [&](const QString &rawData) {
        for (const QJsonObject &message : qAsConst(messages)) {
            if (message.value(QLatin1String("rawData")).toString() == rawData)
                return message;
        }
        return QJsonObject();
    };
    const QString frame = QStringLiteral("*NTF,DPMR,RXVCALL,1,2,3,4,é?>");
    QTRY_VERIFY((messages += pull(), !findFrame(frame).isEmpty()));
    QTRY_VERIFY((messages += pull(), !findFrame(QStringLiteral("*GET,INFO,COMMENT,1")).isEmpty()));
    QJsonObject message = findFrame(frame);
    const QDateTime date =
        QDateTime::fromString(message.take(QLatin1String("transmissionDate")).toString(), Qt::ISODateWithMs);
    QVERIFY(date >= start && date <= QDateTime::currentDateTimeUtc());
    const QJsonObject expected{
        {QStringLiteral("port"), radio.portName()},
        {QStringLiteral("portDesc"), QStringLiteral("van")},
        {QStringLiteral("radioBand"), QStringLiteral("VHF")},
        {QStringLiteral("radioModel"), QStringLiteral("IC-FR5100")},
        {QStringLiteral("trx"), QStringLiteral("RX")},
        {QStringLiteral("rawData"), frame},
        {QStringLiteral("source"), QHostInfo::localHostName()},
        {QStringLiteral("owner_email"), QStringLiteral("chef@example.org")},
        {QStringLiteral("owner_dept"), QStringLiteral("Équipe 4")},
    };
    QCOMPARE(message, expected);
    QCOMPARE(findFrame(QStringLiteral("*GET,INFO,COMMENT,1")).value(QLatin1String("trx")).toString(),
        QStringLiteral("TX"));
    QCOMPARE(daemon.terminate(), 0);
}

QTEST_GUILESS_MAIN(TestEmulator)
#include "tst_emulator.moc"
