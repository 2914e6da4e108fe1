#include "protocol/ActionCommands.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"
#include "serial/MyQSerialPort.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

namespace {

/// Every field of an answer, joined by "|".
QString fieldsOf(const IcomCommandResponse *response)
{
    QStringList fields;
    if (auto *comment = qobject_cast<const RetrieveCloningCommentCommandResponse *>(response))
        fields << comment->comment();
    if (auto *dsp = qobject_cast<const RetrieveDspFirmwareCommandResponse *>(response))
        fields << dsp->dspVersion() << dsp->dspInfo();
    if (auto *esn = qobject_cast<const RetrieveEsnCommandResponse *>(response))
        fields << esn->esn();
    if (auto *firmware = qobject_cast<const RetrieveFirmwareVersionCommandResponse *>(response))
        fields << firmware->firmwareVersion() << firmware->firmwareCode() << firmware->firmwareInfo();
    if (auto *front = qobject_cast<const RetrieveFrontFirmwareCommandResponse *>(response))
        fields << front->frontVersion() << front->frontInfo();
    if (auto *dpmr = qobject_cast<const DpmrNotification *>(response))
        fields << dpmr->field1() << dpmr->callerId() << dpmr->field3() << dpmr->field4();
    if (auto *status = qobject_cast<const RetrieveReceivedDpmrStatusCommandResponse *>(response))
        fields << status->field5();
    if (auto *gps = qobject_cast<const RetrieveReceivedDpmrGpsLocationCommandResponse *>(response))
        fields << gps->message();
    if (auto *call = qobject_cast<const RetrieveReceivedAnalogCallCommandResponse *>(response))
        fields << call->code() << call->field2() << call->field3();
    if (auto *alert = qobject_cast<const Alert *>(response))
        fields << alert->state();
    return fields.join(u'|');
}

using Query = QSharedPointer<IcomCommand>;

} // namespace

Q_DECLARE_METATYPE(Query)

class TestProtocol : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void identificationAnswers_data();
    void identificationAnswers();
    void displayTextNamesItsRadioAndScrolls();
    void killCommandsAreOnlyLogged();
    void notifications_data();
    void notifications();
    void alertsAreLoggedByState();

private:
    TestDatabase m_file;
};

void TestProtocol::initTestCase()
{
    qRegisterMetaType<QSharedPointer<IcomCommandResponse>>();
    ConfigDatabase::getInstance(m_file.path());
}

void TestProtocol::identificationAnswers_data()
{
    QTest::addColumn<Query>("query");
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("fields"); // null when the frame is no answer
    const auto row = [](const Query &query, const QByteArray &frame, const QString &fields = {}) {
        QTest::newRow(frame) << query << frame << fields;
    };
    const auto esn = QSharedPointer<RetrieveEsnCommand>::create(nullptr);
    row(esn, QByteArray("*NTF,INFO,ESN,0123\0junk", 23), "0123"_s);
    row(esn, "*NTF,INFO,ESN,12A");
    row(esn, "x*NTF,INFO,ESN,12");
    const auto comment = QSharedPointer<RetrieveCloningCommentCommand>::create(nullptr, 2);
    row(comment, "*NTF,INFO,COMMENT,Équipe, 1", "Équipe, 1"_s);
    row(comment, "*NTF,INFO,COMMENT,", ""_s);
    row(comment, "*NTF,INFO,COMMENT");
    const auto dsp = QSharedPointer<RetrieveDspFirmwareCommand>::create(nullptr);
    row(dsp, "*NTF,INFO,DREV,1.02,X", "1.02|X"_s);
    row(dsp, "*NTF,INFO,DREV,NG", "NG|NG"_s);
    row(dsp, "*NTF,INFO,DREV,A.1,X");
    const auto firmware = QSharedPointer<RetrieveFirmwareVersionCommand>::create(nullptr);
    row(firmware, "*NTF,INFO,REV,1.0,$AB12", "1.0|$AB12|"_s);
    row(firmware, "x*NTF,INFO,REV,1.0,$AB12,z-z", "1.0|$AB12|z"_s); // not tied to either end
    row(firmware, "*NTF,INFO,REV,1.0,AB12");
    const auto front = QSharedPointer<RetrieveFrontFirmwareCommand>::create(nullptr);
    row(front, "*NTF,INFO,FREV,a,b,c", "a,b|c"_s);
    row(front, "*NTF,INFO,FREV,NG", "NG|NG"_s);
    row(front, "*NTF,INFO,FREV,NGX");
}

void TestProtocol::identificationAnswers()
{
    QFETCH(Query, query);
    QFETCH(QByteArray, frame);
    QFETCH(QString, fields);
    LogCapture log;
    QSignalSpy answers(query.data(), &IcomCommand::commandResponse);
    QCOMPARE(query->validResponse(frame), !fields.isNull());
    if (fields.isNull()) {
        const QString names[] = {
            {}, "Comment"_s, "DSP FW response"_s, "ESN"_s, "Firmware Version"_s, "Front firmware version"_s};
        QCOMPARE(log.text(QtWarningMsg),
            "NON Valid %1 :  \"%2\""_s.arg(names[query->commandType()], QString::fromUtf8(frame)));
        QVERIFY(answers.isEmpty());
        return;
    }
    QCOMPARE(log.text(), QString());
    const auto answer = answers.first().first().value<QSharedPointer<IcomCommandResponse>>();
    QCOMPARE(answer->responseType(), query->commandType());
    QCOMPARE(answer->data(), frame);
    QCOMPARE(fieldsOf(answer.data()), fields);
}

void TestProtocol::displayTextNamesItsRadioAndScrolls()
{
    struct Case
    {
        QString text;
        QString command;
        QString followUp; ///< its delay in ms and its text
    };
    for (const Case &each : {Case{""_s, ""_s, ""_s}, {"ABCDEFGHIJKé"_s, "ABCDEFGHIJKé"_s, "4000 "_s},
             {"ABCDEFGHIJKLM"_s, "ABCDEFGHIJKLM"_s, "100 FGHIJKLM"_s},
             {"on <Port> <NAME>"_s, "on ttyUSB0 R1"_s, "100 yUSB0 R1"_s}}) {
        RecordingLink link("R1"_s, "ttyUSB0"_s);
        MyQSerialPort closedPort; // the write fails; what is queued does not depend on it
        DisplayTextCommand command(&link, each.text, 4000);
        QCOMPARE(command.commandText(), "*SET,UI,TEXT,"_s + each.command);
        QVERIFY(!command.execute(&closedPort));
        QString followUp;
        for (const RecordingLink::Delayed &next : qAsConst(link.delayed))
            followUp += QString::number(next.delayMs) + u' ' + next.command->commandText().section(u',', 3);
        QCOMPARE(followUp, each.followUp);
    }
    RecordingLink doubling("<name><NAME>"_s); // at each call, if it were inserted
    DisplayTextCommand bomb(&doubling, "<name>"_s, 5000);
    QCOMPARE(bomb.commandText(), "*SET,UI,TEXT,<name>"_s);
    DisplayTextCommand orphan(nullptr, "<name> %1"_s, 5000); // its adapter is gone
    QCOMPARE(orphan.commandText(), "*SET,UI,TEXT,<name> %1"_s);
}

void TestProtocol::killCommandsAreOnlyLogged()
{
    LogCapture log;
    DpmrKillCommand dpmr(nullptr, "4567"_s);
    AnalogKillCommand analog(nullptr, "123"_s);
    QVERIFY(dpmr.execute(nullptr) && analog.execute(nullptr)); // no port is needed
    QVERIFY(!dpmr.expectsResponse() && dpmr.validResponse("x") && analog.validResponse("x"));
    QCOMPARE(log.text(QtInfoMsg),
        "PCCMDV2 Command to send :  \"*SET,DPMR,TXSTAT,IND,4567,0047312,30,ACK\"\n"
        "PCCMDV2 Command to send :  \"*SET,5T,TXCODE,123DC\""_s);
    QCOMPARE(analog.commandText(), "*SET,5T,TXCODE,123DCDC"_s);

    log.clear();
    RetrieveEsnCommand query(nullptr); // any other needs one
    MyQSerialPort closedPort;
    QVERIFY(query.expectsResponse() && !query.execute(nullptr) && !query.execute(&closedPort));
    QCOMPARE(log.text(QtInfoMsg),
        "TRYING TO SEND A COMMAND ON A NULL SERIAL PORT\nTRYING TO SEND A COMMAND ON A CLOSED SERIAL PORT"_s);
}

void TestProtocol::notifications_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<int>("type"); // 0: the frame is dropped
    QTest::addColumn<QString>("fields");
    const auto row = [](const QByteArray &frame, int type, const char *fields = "") {
        QTest::newRow(frame) << frame << type << QString::fromUtf8(fields);
    };
    row("*NTF,DPMR,RXVCALL,IND,0,1,2,3,4,é", 6, "2|3|4|é");
    row("*NTF,DPMR,RXVCALL,2,3,4,5", 99);
    row(QByteArray("*NTF,DPMR,RXVCALL,1,2,3,4,5\0,6", 30), 6, "2|3|4|5");
    row(QByteArray("*NTF\0,DPMR,RXVCALL,1,2,3,4,5", 28), 99);
    row("*NTF,DPMR,RXSTAT,1,2,3,4,5,RXVCALL", 99); // the call's keyword comes first
    row("*NTF,5T,RXCODE,1,2,3,4", 7, "1,2|3|4");
    row("*NTF,5T,RXCODE,1,2", 99);
    row("*NTF,DPMR,RXSTAT,a,b,1,2,3,4,5,6", 8, "2|3|4|5|6");
    row("*NTF,DPMR,RXSTAT,1,2,3,4,5", 99);
    row("*NTF,DPMR,RXMSG,a,b,1,2,3,4,5,GPS,\"N48, E2\"", 9, "2|3|4|5|N48, E2");
    row("*NTF,DPMR,RXMSG,1,2,3,4,5,TXT,\"hello\"", 99);
    row("*NTF,DPMR,RXMSG,1,2,3,4,5,GPS,x", 0);
    row("*NTF,CTRL,BATVST,L1\"", 10, "L1");
    row("*NTF,CTRL,BATVST,L1", 99);
    row("*NTF,CTRL,RFPWRST,ON\"", 11, "ON");
    row("*NTF,CTRL,RFPWRST,ON", 99);
    row("", 99);
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
    QCOMPARE(fieldsOf(response.data()), fields);
}

void TestProtocol::alertsAreLoggedByState()
{
    LogCapture log;
    for (const char *report :
        {"BATVST,N", "BATVST,H", "BATVST,L1", "BATVST,L2", "RFPWRST,ON", "RFPWRST,on", "RFPWRST,OFF"})
        parseNotification(nullptr, QByteArray("*NTF,CTRL,") + report + '"')->process();
    QCOMPARE(log.text(QtInfoMsg),
        "Battery alert recovered.\nBattery alert Overvoltage.\nBattery alert : 10.43V < Vin < 11.05V\n"
        "Tx Power limitation enabled.\nTx Power limitation disabled - alert recovered."_s);
}

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
