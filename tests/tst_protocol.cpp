#include "forwarders/StreamRecords.h"
#include "protocol/ActionCommands.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"
#include "serial/MyQSerialPort.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

namespace {

/// Every field of an answer, joined by "|", in the order of their names in the stream.
QString fieldsOf(const IcomCommandResponse &response)
{
    const QByteArray record = StreamRecords::frame(RadioAdapterConfig(), response);
    const QJsonObject fields = QJsonDocument::fromJson(record).object().value("fields"_s).toObject();
    QStringList values;
    for (const QJsonValue field : fields)
        values.append(field.toString());
    return values.join(u'|');
}

} // namespace

class TestProtocol : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void identificationAnswers();
    void displayTextNamesItsRadioAndScrolls();
    void commandsNeedAPort();
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

void TestProtocol::identificationAnswers()
{
    const auto esn = QSharedPointer<RetrieveEsnCommand>::create(nullptr);
    const auto comment = QSharedPointer<RetrieveCloningCommentCommand>::create(nullptr, 2);
    const auto dsp = QSharedPointer<RetrieveDspFirmwareCommand>::create(nullptr);
    const auto firmware = QSharedPointer<RetrieveFirmwareVersionCommand>::create(nullptr);
    const auto front = QSharedPointer<RetrieveFrontFirmwareCommand>::create(nullptr);
    struct Case
    {
        QSharedPointer<IcomCommand> query;
        QByteArray frame;
        QString fields{}; ///< null when the frame is no answer
    };
    const Case cases[] = {{esn, QByteArray("*NTF,INFO,ESN,0123\0junk", 23), "0123"_s},
        {esn, "*NTF,INFO,ESN,12A"}, {esn, "x*NTF,INFO,ESN,12"},
        {comment, "*NTF,INFO,COMMENT,Équipe, 1", "Équipe, 1"_s}, {comment, "*NTF,INFO,COMMENT,", ""_s},
        {comment, "*NTF,INFO,COMMENT"}, {dsp, "*NTF,INFO,DREV,1.02,X", "X|1.02"_s},
        {dsp, "*NTF,INFO,DREV,NG", "NG|NG"_s}, {dsp, "*NTF,INFO,DREV,A.1,X"},
        {firmware, "*NTF,INFO,REV,1.0,$AB12", "$AB12||1.0"_s},
        {firmware, "x*NTF,INFO,REV,1.0,$AB12,z-z", "$AB12|z|1.0"_s}, // not tied to either end
        {firmware, "*NTF,INFO,REV,1.0,AB12"}, {front, "*NTF,INFO,FREV,a,b,c", "c|a,b"_s},
        {front, "*NTF,INFO,FREV,NG", "NG|NG"_s}, {front, "*NTF,INFO,FREV,NGX"}};
    const QString names[] = {
        {}, "Comment"_s, "DSP FW response"_s, "ESN"_s, "Firmware Version"_s, "Front firmware version"_s};
    for (const auto &[query, frame, fields] : cases) {
        LogCapture log;
        QSignalSpy answers(query.data(), &IcomCommand::commandResponse);
        QVERIFY2(query->validResponse(frame) == !fields.isNull(), frame);
        QCOMPARE(log.text(QtWarningMsg),
            fields.isNull()
                ? "NON Valid %1 :  \"%2\""_s.arg(names[query->commandType()], QString::fromUtf8(frame))
                : QString());
        QCOMPARE(answers.isEmpty(), fields.isNull());
        if (fields.isNull())
            continue;
        const auto answer = answers.first().first().value<QSharedPointer<IcomCommandResponse>>();
        QCOMPARE(answer->responseType(), query->commandType());
        QCOMPARE(answer->data(), frame);
        QCOMPARE(fieldsOf(*answer), fields);
    }
}

void TestProtocol::displayTextNamesItsRadioAndScrolls()
{
    const QStringList cases[] = {// text, command, delay in ms and text of what follows
        {""_s, ""_s, ""_s}, {"ABCDEFGHIJKé"_s, "ABCDEFGHIJKé"_s, "4000 *SET,UI,TEXT,"_s},
        {"ABCDEFGHIJKLM"_s, "ABCDEFGHIJKLM"_s, "100 *SET,UI,TEXT,FGHIJKLM"_s},
        {"on <Port> <NAME>"_s, "on ttyUSB0 R1"_s, "100 *SET,UI,TEXT,yUSB0 R1"_s}};
    for (const QStringList &each : cases) {
        RecordingLink link("R1"_s, "ttyUSB0"_s);
        MyQSerialPort closedPort; // the write fails; what is queued does not depend on it
        DisplayTextCommand command(&link, each.at(0), 4000);
        QCOMPARE(command.commandText(), "*SET,UI,TEXT,"_s + each.at(1));
        QVERIFY(!command.execute(&closedPort));
        QCOMPARE(link.delayed.join(u' '), each.at(2));
    }
    RecordingLink doubling("<name><NAME>"_s); // at each call, if it were inserted
    DisplayTextCommand bomb(&doubling, "<name>"_s, 5000);
    QCOMPARE(bomb.commandText(), "*SET,UI,TEXT,<name>"_s);
    DisplayTextCommand orphan(nullptr, "<name> %1"_s, 5000); // its adapter is gone
    QCOMPARE(orphan.commandText(), "*SET,UI,TEXT,<name> %1"_s);
}

void TestProtocol::commandsNeedAPort()
{
    LogCapture log;
    RetrieveEsnCommand query(nullptr);
    MyQSerialPort closedPort;
    QVERIFY(query.expectsResponse() && !query.execute(nullptr) && !query.execute(&closedPort));
    QCOMPARE(log.text(QtInfoMsg),
        "TRYING TO SEND A COMMAND ON A NULL SERIAL PORT\nTRYING TO SEND A COMMAND ON A CLOSED SERIAL PORT"_s);
}

void TestProtocol::notifications()
{
    // Type and fields of what becomes of a frame, unless it is dropped.
    const QPair<QByteArray, QString> cases[] = {{"*NTF,DPMR,RXVCALL,IND,0,1,2,3,4,é", "6 3|2|4|é"_s},
        {"*NTF,DPMR,RXVCALL,2,3,4,5", "99 "_s},
        {QByteArray("*NTF,DPMR,RXVCALL,1,2,3,4,5\0,6", 30), "6 3|2|4|5"_s},
        {QByteArray("*NTF\0,DPMR,RXVCALL,1,2,3,4,5", 28), "99 "_s},
        {"*NTF,DPMR,RXSTAT,1,2,3,4,5,RXVCALL", "99 "_s}, // the call's keyword comes first
        {"*NTF,5T,RXCODE,1,2,3,4", "7 1,2|3|4"_s}, {"*NTF,5T,RXCODE,1,2", "99 "_s},
        {"*NTF,DPMR,RXSTAT,a,b,1,2,3,4,5,6", "8 3|2|4|5|6"_s}, {"*NTF,DPMR,RXSTAT,1,2,3,4,5", "99 "_s},
        {"*NTF,DPMR,RXMSG,a,b,1,2,3,4,5,GPS,\"N48, E2\"", "9 3|2|4|5|N48, E2"_s},
        {"*NTF,DPMR,RXMSG,1,2,3,4,5,TXT,\"hello\"", "99 "_s},
        {"*NTF,DPMR,RXMSG,1,2,3,4,5,GPS,x", "dropped"_s}, {"*NTF,CTRL,BATVST,L1\"", "10 L1"_s},
        {"*NTF,CTRL,BATVST,L1", "99 "_s}, {"*NTF,CTRL,RFPWRST,ON\"", "11 ON"_s},
        {"*NTF,CTRL,RFPWRST,ON", "99 "_s}, {"", "99 "_s}};
    RecordingLink link;
    for (const auto &[frame, expected] : cases) {
        const auto response = parseNotification(&link, frame);
        const QString outcome =
            response ? "%1 %2"_s.arg(response->responseType()).arg(fieldsOf(*response)) : "dropped"_s;
        QVERIFY2(outcome == expected, frame + ": " + outcome.toUtf8());
        QVERIFY(!response || response->data() == frame);
    }
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
