#include "autokill/AutoKill.h"
#include "config/ConfigDatabase.h"
#include "protocol/ActionCommands.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"
#include "serial/MyQSerialPort.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestCertificates.h"
#include "support/TestDatabase.h"

#include <QSignalSpy>
#include <QTest>

namespace {

/// A command with any kind and any line.
class PlainCommand : public IcomCommand
{
public:
    PlainCommand(int kind, const QString &text) : IcomCommand(nullptr, kind), m_text(text) { }
    QString commandText() override { return m_text; }
    bool validResponse(const QByteArray &) override { return false; }

private:
    const QString m_text;
};

QStringList fieldsOf(const IcomCommandResponse *response)
{
    if (auto *comment = qobject_cast<const RetrieveCloningCommentCommandResponse *>(response))
        return {comment->comment()};
    if (auto *dsp = qobject_cast<const RetrieveDspFirmwareCommandResponse *>(response))
        return {dsp->dspVersion(), dsp->dspInfo()};
    if (auto *esn = qobject_cast<const RetrieveEsnCommandResponse *>(response))
        return {esn->esn()};
    if (auto *firmware = qobject_cast<const RetrieveFirmwareVersionCommandResponse *>(response))
        return {firmware->firmwareVersion(), firmware->firmwareCode(), firmware->firmwareInfo()};
    if (auto *front = qobject_cast<const RetrieveFrontFirmwareCommandResponse *>(response))
        return {front->frontVersion(), front->frontInfo()};
    if (auto *dpmr = qobject_cast<const DpmrNotification *>(response)) {
        QStringList fields{dpmr->field1(), dpmr->callerId(), dpmr->field3(), dpmr->field4()};
        if (auto *status = qobject_cast<const RetrieveReceivedDpmrStatusCommandResponse *>(response))
            fields << status->field5();
        if (auto *gps = qobject_cast<const RetrieveReceivedDpmrGpsLocationCommandResponse *>(response))
            fields << gps->message();
        return fields;
    }
    if (auto *call = qobject_cast<const RetrieveReceivedAnalogCallCommandResponse *>(response))
        return {call->code(), call->field2(), call->field3()};
    if (auto *alert = qobject_cast<const Alert *>(response))
        return {alert->state()};
    return {};
}

IcomCommand *newQuery(int kind)
{
    switch (kind) {
    case IcomCommand::RetrieveCloningComment:
        return new RetrieveCloningCommentCommand(nullptr, 2);
    case IcomCommand::RetrieveDspFirmware:
        return new RetrieveDspFirmwareCommand(nullptr);
    case IcomCommand::RetrieveEsn:
        return new RetrieveEsnCommand(nullptr);
    case IcomCommand::RetrieveFirmwareVersion:
        return new RetrieveFirmwareVersionCommand(nullptr);
    default:
        return new RetrieveFrontFirmwareCommand(nullptr);
    }
}

} // namespace

class TestProtocol : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void onlyActionsExpectNoAnswer();
    void executeNeedsAnOpenPort();
    void identificationAnswers_data();
    void identificationAnswers();
    void displayTextNamesItsRadio();
    void displayTextScrolls_data();
    void displayTextScrolls();
    void killCommandsAreOnlyLogged();
    void notifications_data();
    void notifications();
    void alertsAreLoggedByState_data();
    void alertsAreLoggedByState();
    void flaggedCallersAreKilled();

private:
    TestDatabase m_file;
};

void TestProtocol::initTestCase()
{
    qRegisterMetaType<QSharedPointer<IcomCommandResponse>>();
    ConfigDatabase::getInstance(m_file.path());
}

void TestProtocol::onlyActionsExpectNoAnswer()
{
    QVERIFY(!PlainCommand(99, QString()).expectsResponse());
    QVERIFY(PlainCommand(3, QString()).expectsResponse());
    QVERIFY(PlainCommand(42, QString()).expectsResponse());
    PlainCommand command(3, QString());
    QVERIFY(!command.timestamp().isValid());
    command.stampNow();
    QCOMPARE(command.timestamp().timeSpec(), Qt::UTC);
}

void TestProtocol::executeNeedsAnOpenPort()
{
    LogCapture log;
    PlainCommand command(3, QString());
    MyQSerialPort closed;
    QVERIFY(!command.execute(nullptr));
    QVERIFY(!command.execute(&closed));
    QCOMPARE(log.texts(QtInfoMsg),
        (QStringList{QStringLiteral("TRYING TO SEND A COMMAND ON A NULL SERIAL PORT"),
            QStringLiteral("TRYING TO SEND A COMMAND ON A CLOSED SERIAL PORT")}));
}

void TestProtocol::identificationAnswers_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("fields"); // joined with "|"; empty when the frame is no answer
    QTest::addColumn<QString>("warning");

    const auto row = [](const char *name, int kind, const char *line, const QByteArray &frame,
                         const char *fields, const char *warning) {
        QTest::newRow(name) << kind << QString::fromLatin1(line) << frame << QString::fromUtf8(fields)
                            << QString::fromLatin1(warning);
    };
    const auto esn = [&](const char *name, const QByteArray &frame, const char *fields) {
        row(name, 3, "*GET,INFO,ESN", frame, fields, "NON Valid ESN : ");
    };
    esn("esn", "*NTF,INFO,ESN,0123", "0123");
    esn("esn with letters", "*NTF,INFO,ESN,12A", "");
    esn("esn up to a NUL", QByteArray("*NTF,INFO,ESN,12\0junk", 21), "12");
    esn("esn after junk", "x*NTF,INFO,ESN,12", "");
    esn("esn before junk", "*NTF,INFO,ESN,12junk", "");
    esn("esn of the wrong case", "*ntf,INFO,ESN,12", "");
    const auto comment = [&](const char *name, const QByteArray &frame, const char *fields) {
        row(name, 1, "*GET,INFO,COMMENT,2", frame, fields, "NON Valid Comment : ");
    };
    comment("comment", "*NTF,INFO,COMMENT,Équipe, 1", "Équipe, 1");
    comment("empty comment", "*NTF,INFO,COMMENT,", "<empty>");
    comment("no comment", "*NTF,INFO,COMMENT", "");
    const auto dsp = [&](const char *name, const QByteArray &frame, const char *fields) {
        row(name, 2, "*GET,INFO,DREV", frame, fields, "NON Valid DSP FW response : ");
    };
    dsp("dsp", "*NTF,INFO,DREV,1.02,X", "1.02|X");
    dsp("dsp NG", "*NTF,INFO,DREV,NG", "NG|NG");
    dsp("dsp with letters", "*NTF,INFO,DREV,A.1,X", "");
    const auto firmware = [&](const char *name, const QByteArray &frame, const char *fields) {
        row(name, 4, "*GET,INFO,REV", frame, fields, "NON Valid Firmware Version : ");
    };
    firmware("firmware", "*NTF,INFO,REV,1.0a,$AB12,x y", "1.0a|$AB12|x y");
    firmware("firmware without its third field", "*NTF,INFO,REV,1.0,$AB12", "1.0|$AB12|");
    firmware("firmware between junk", "x*NTF,INFO,REV,1.0,$AB12,z-z", "1.0|$AB12|z");
    firmware("firmware without a code", "*NTF,INFO,REV,1.0,AB12", "");
    const auto front = [&](const char *name, const QByteArray &frame, const char *fields) {
        row(name, 5, "*GET,INFO,FREV", frame, fields, "NON Valid Front firmware version : ");
    };
    front("front", "*NTF,INFO,FREV,a,b,c", "a,b|c");
    front("front NG", "*NTF,INFO,FREV,NG", "NG|NG");
    front("front of one field", "*NTF,INFO,FREV,NGX", "");
}

void TestProtocol::identificationAnswers()
{
    QFETCH(int, kind);
    QFETCH(QString, line);
    QFETCH(QByteArray, frame);
    QFETCH(QString, fields);
    QFETCH(QString, warning);
    const QScopedPointer<IcomCommand> query(newQuery(kind));
    QCOMPARE(query->commandType(), kind);
    QCOMPARE(query->commandText(), line);

    LogCapture log;
    QSignalSpy answers(query.data(), &IcomCommand::commandResponse);
    QCOMPARE(query->validResponse(frame), !fields.isEmpty());
    if (fields.isEmpty()) {
        QVERIFY(answers.isEmpty());
        QVERIFY(log.texts(QtWarningMsg).first().startsWith(warning));
        return;
    }
    QVERIFY(log.texts().isEmpty());
    const auto answer = answers.first().first().value<QSharedPointer<IcomCommandResponse>>();
    QCOMPARE(answer->responseType(), kind);
    QCOMPARE(answer->data(), frame);
    QVERIFY(!answer->parent() && !answer->timestamp().isValid());
    QCOMPARE(
        fieldsOf(answer.data()).join(QLatin1Char('|')), fields.replace(QLatin1String("<empty>"), QString()));
}

void TestProtocol::displayTextNamesItsRadio()
{
    RecordingLink link(QStringLiteral("R1"), QStringLiteral("ttyUSB0"));
    DisplayTextCommand command(
        &link, QStringLiteral("Radio nommee <NAME> branchee sur le port <Port>"), 5000);
    QCOMPARE(
        command.commandText(), QStringLiteral("*SET,UI,TEXT,Radio nommee R1 branchee sur le port ttyUSB0"));

    link.config()->name = QStringLiteral("<name><NAME>");
    DisplayTextCommand bomb(&link, QStringLiteral("<name>"), 5000); // it would double at each call
    QCOMPARE(bomb.commandText(), QStringLiteral("*SET,UI,TEXT,<name>"));

    DisplayTextCommand orphan(nullptr, QStringLiteral("<name> %1"), 5000); // its adapter is gone
    QCOMPARE(orphan.commandText(), QStringLiteral("*SET,UI,TEXT,<name> %1"));
}

void TestProtocol::displayTextScrolls_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("followUp"); // null when there is none
    QTest::addColumn<int>("delay");
    QTest::newRow("empty") << "" << QString() << 0;
    QTest::newRow("short") << "HELLO"
                           << "" << 4000;
    QTest::newRow("12 characters") << "ABCDEFGHIJKé"
                                   << "" << 4000;
    QTest::newRow("13 characters") << "ABCDEFGHIJKLM"
                                   << "FGHIJKLM" << 100;
    QTest::newRow("13 once its name is in") << "ABCDEF<name>"
                                            << "FSEVENTH" << 100;
}

void TestProtocol::displayTextScrolls()
{
    QFETCH(QString, text);
    QFETCH(QString, followUp);
    QFETCH(int, delay);
    RecordingLink link(QStringLiteral("SEVENTH"));
    MyQSerialPort closedPort; // the write fails; what is queued does not depend on it
    DisplayTextCommand command(&link, text, 4000);
    QVERIFY(!command.expectsResponse() && command.validResponse("anything"));
    QVERIFY(!command.execute(&closedPort));
    QCOMPARE(link.delayed.size(), followUp.isNull() ? 0 : 1);
    for (const RecordingLink::Delayed &next : qAsConst(link.delayed)) {
        QCOMPARE(next.delayMs, delay);
        QCOMPARE(next.command->commandText(), QStringLiteral("*SET,UI,TEXT,") + followUp);
    }
}

void TestProtocol::killCommandsAreOnlyLogged()
{
    LogCapture log;
    DpmrKillCommand dpmr(nullptr, QStringLiteral("4567"));
    AnalogKillCommand analog(nullptr, QStringLiteral("123"));
    QVERIFY(dpmr.execute(nullptr) && analog.execute(nullptr)); // no port is needed
    QVERIFY(!dpmr.expectsResponse() && dpmr.validResponse("x") && analog.validResponse("x"));
    QCOMPARE(log.texts(QtInfoMsg),
        (QStringList{
            QStringLiteral("PCCMDV2 Command to send :  \"*SET,DPMR,TXSTAT,IND,4567,0047312,30,ACK\""),
            QStringLiteral("PCCMDV2 Command to send :  \"*SET,5T,TXCODE,123DC\"")}));
    QCOMPARE(analog.commandText(), QStringLiteral("*SET,5T,TXCODE,123DCDC"));
}

void TestProtocol::notifications_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<int>("type"); // 0: the frame is dropped
    QTest::addColumn<QString>("fields");
    const auto row = [](const char *name, const QByteArray &frame, int type, const char *fields = "") {
        QTest::newRow(name) << frame << type << QString::fromUtf8(fields);
    };
    row("call", "*NTF,DPMR,RXVCALL,1,2,3,4,5", 6, "2|3|4|5");
    row("call with more fields", "*NTF,DPMR,RXVCALL,IND,0,1,2,3,4,é", 6, "2|3|4|é");
    row("call of four fields", "*NTF,DPMR,RXVCALL,2,3,4,5", 99);
    row("call up to a NUL", QByteArray("*NTF,DPMR,RXVCALL,1,2,3,4,5\0,6", 30), 6, "2|3|4|5");
    row("call keyword behind a NUL", QByteArray("*NTF\0,DPMR,RXVCALL,1,2,3,4,5", 28), 99);
    row("call wins over status", "*NTF,DPMR,RXSTAT,1,2,3,4,5,RXVCALL", 99);
    row("5-tone", "*NTF,5T,RXCODE,1,2,3,4", 7, "1,2|3|4");
    row("5-tone of two fields", "*NTF,5T,RXCODE,1,2", 99);
    row("status", "*NTF,DPMR,RXSTAT,1,2,3,4,5,6", 8, "2|3|4|5|6");
    row("status of five fields", "*NTF,DPMR,RXSTAT,1,2,3,4,5", 99);
    row("GPS", "*NTF,DPMR,RXMSG,1,2,3,4,5,GPS,\"N48, E2\"", 9, "2|3|4|5|N48, E2");
    row("text", "*NTF,DPMR,RXMSG,1,2,3,4,5,TXT,\"hello\"", 99);
    row("status with more fields", "*NTF,DPMR,RXSTAT,a,b,1,2,3,4,5,6", 8, "2|3|4|5|6");
    row("GPS with more fields", "*NTF,DPMR,RXMSG,a,b,1,2,3,4,5,GPS,\"x\"", 9, "2|3|4|5|x");
    row("GPS in small letters", "*NTF,DPMR,RXMSG,1,2,3,4,5,gps,\"x\"", 99);
    row("message without quotes", "*NTF,DPMR,RXMSG,1,2,3,4,5,GPS,x", 0);
    row("battery", "*NTF,CTRL,BATVST,L1\"", 10, "L1");
    row("battery without its quote", "*NTF,CTRL,BATVST,L1", 99);
    row("power", "*NTF,CTRL,RFPWRST,ON\"", 11, "ON");
    row("power without its quote", "*NTF,CTRL,RFPWRST,ON", 99);
    row("keyword of the wrong case", "*NTF,CTRL,rfpwrst,ON\"", 99);
    row("anything else", "hello", 99);
    row("empty", "", 99);
}

void TestProtocol::notifications()
{
    QFETCH(QByteArray, frame);
    QFETCH(int, type);
    QFETCH(QString, fields);
    RecordingLink link;
    const auto response = parseNotification(&link, frame);
    QCOMPARE(!response, type == 0);
    if (!response)
        return;
    QCOMPARE(response->responseType(), type);
    QCOMPARE(response->data(), frame);
    QCOMPARE(response->parent(), &link);
    QCOMPARE(fieldsOf(response.data()).join(QLatin1Char('|')), fields);
}

void TestProtocol::alertsAreLoggedByState_data()
{
    QTest::addColumn<QByteArray>("report");
    QTest::addColumn<QString>("line");
    QTest::newRow("N") << QByteArray("BATVST,N") << "Battery alert recovered.";
    QTest::newRow("H") << QByteArray("BATVST,H") << "Battery alert Overvoltage.";
    QTest::newRow("L1") << QByteArray("BATVST,L1") << "Battery alert : 10.43V < Vin < 11.05V";
    QTest::newRow("L2") << QByteArray("BATVST,L2") << QString();
    QTest::newRow("n") << QByteArray("BATVST,n") << QString();
    QTest::newRow("OFF") << QByteArray("RFPWRST,OFF") << "Tx Power limitation disabled - alert recovered.";
    QTest::newRow("ON") << QByteArray("RFPWRST,ON") << "Tx Power limitation enabled.";
    QTest::newRow("on") << QByteArray("RFPWRST,on") << QString();
}

void TestProtocol::alertsAreLoggedByState()
{
    QFETCH(QByteArray, report);
    QFETCH(QString, line);
    LogCapture log;
    parseNotification(nullptr, "*NTF,CTRL," + report + '"')->process();
    QCOMPARE(log.texts(QtInfoMsg), line.isNull() ? QStringList() : QStringList(line));
}

void TestProtocol::flaggedCallersAreKilled()
{
    const TestCertificates certificates;
    HttpServer server(&certificates);
    server.answer = [](const HttpServer::Request &) {
        return HttpServer::Answer{200, "OK", R"({"entities":[{"externalId":"77"},{"externalId":"0055"}]})"};
    };
    m_file.setKey(QStringLiteral("autokill_enabled"), QStringLiteral("true"));
    m_file.setKey(QStringLiteral("autokill_url"), server.url());
    AutoKill::getInstance()->start();
    QTRY_VERIFY(AutoKill::getInstance()->isFlagged(QStringLiteral("77")));

    RecordingLink link;
    LogCapture log;
    for (const char *frame : {"*NTF,DPMR,RXVCALL,1,2,77,4,5", "*NTF,DPMR,RXSTAT,1,2,77,4,5,6",
             "*NTF,DPMR,RXMSG,1,2,77,4,5,GPS,\"x\"", "*NTF,DPMR,RXVCALL,77,77,3,4,5"})
        parseNotification(&link, frame)->process();
    QCOMPARE(link.queued.size(), 3);
    QVERIFY(link.queued.last()->commandText().contains(QStringLiteral(",IND,77,")));
    QCOMPARE(log.texts(QtInfoMsg).size(), 3);
    QCOMPARE(log.texts().first(), QStringLiteral("Blacklisted radio detected :  \"77\""));

    for (const char *frame : {"*NTF,5T,RXCODE,55,0,0", "*NTF,5T,RXCODE,0055,0,0"})
        parseNotification(&link, frame)->process();
    QCOMPARE(link.delayed.size(), 1);
    QCOMPARE(link.delayed.first().delayMs, 1000);
    QCOMPARE(link.delayed.first().command->commandText(), QStringLiteral("*SET,5T,TXCODE,55DC"));
    QCOMPARE(log.texts().last(), QStringLiteral("Blacklisted radio detected :  \"55\""));

    parseNotification(nullptr, "*NTF,DPMR,RXVCALL,1,2,77,4,5")->process(); // its adapter is gone
}

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
