#include "protocol/IdentificationCommands.h"
#include "serial/MyQSerialPort.h"
#include "support/LogCapture.h"

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
    void initTestCase() { qRegisterMetaType<QSharedPointer<IcomCommandResponse>>(); }
    void onlyActionsExpectNoAnswer();
    void executeNeedsAnOpenPort();
    void identificationAnswers_data();
    void identificationAnswers();
};

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

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
