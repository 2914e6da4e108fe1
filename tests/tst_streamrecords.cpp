#include "protocol/IdentificationCommands.h"
#include "serial/SerialDiscoverer.h"
#include "support/OpenSsl.h"
#include "support/PluggedRadio.h"
#include "support/StreamTest.h"

namespace {

/// What is heard and sent by speakOfEveryKind(): kind, fields, text.
const char *const expected[] = {R"(esn {"esn":"0123"} *NTF,INFO,ESN,0123)",
    R"(comment {"comment":""} *NTF,INFO,COMMENT,)",
    R"(dspFirmware {"dspInfo":"X","dspVersion":"1.02"} *NTF,INFO,DREV,1.02,X)",
    R"(firmware {"firmwareCode":"$3","firmwareInfo":"","firmwareVersion":"1.2a"} *NTF,INFO,REV,1.2a,$3)",
    R"(frontFirmware {"frontInfo":"NG","frontVersion":"NG"} *NTF,INFO,FREV,NG)",
    R"(dpmrCall {"callerId":"3","field1":"2","field3":"4","field4":"5"} *NTF,DPMR,RXVCALL,1,2,3,4,5)",
    R"(analogCall {"code":"1","field2":"2","field3":"3"} *NTF,5T,RXCODE,1,2,3)",
    R"(dpmrStatus {"callerId":"3","field1":"2","field3":"4","field4":"5","field5":"6"} *NTF,DPMR,RXSTAT,1,2,3,4,5,6)",
    R"(gps {"callerId":"3","field1":"2","field3":"4","field4":"5","message":"N,E"} *NTF,DPMR,RXMSG,1,2,3,4,5,GPS,"N,E")",
    R"(battery {"state":"L1"} *NTF,CTRL,BATVST,L1")", R"(txPower {"state":"ON"} *NTF,CTRL,RFPWRST,ON")",
    R"(unsolicited {} *NTF,é)", R"(query {} *GET,INFO,ESN)", R"(display {} *SET,UI,TEXT,Équipe 1)",
    R"(kill {} *SET,5T,TXCODE,123DC)", R"(kill {} *SET,DPMR,TXSTAT,IND,4567,0047312,30,ACK)"};

void speakOfEveryKind(Speaker &radio)
{
    RetrieveEsnCommand esn(nullptr);
    RetrieveCloningCommentCommand comment(nullptr, 1);
    RetrieveDspFirmwareCommand dsp(nullptr);
    RetrieveFirmwareVersionCommand firmware(nullptr);
    RetrieveFrontFirmwareCommand front(nullptr);
    radio.hear(esn, "*NTF,INFO,ESN,0123");
    radio.hear(comment, "*NTF,INFO,COMMENT,");
    radio.hear(dsp, "*NTF,INFO,DREV,1.02,X");
    radio.hear(firmware, "*NTF,INFO,REV,1.2a,$3");
    radio.hear(front, "*NTF,INFO,FREV,NG");
    for (const char *frame : {"*NTF,DPMR,RXVCALL,1,2,3,4,5", "*NTF,5T,RXCODE,1,2,3",
             "*NTF,DPMR,RXSTAT,1,2,3,4,5,6", "*NTF,DPMR,RXMSG,1,2,3,4,5,GPS,\"N,E\"", "*NTF,CTRL,BATVST,L1\"",
             "*NTF,CTRL,RFPWRST,ON\"", "*NTF,é"})
        radio.hear(QByteArray(frame));
    radio.tell(QSharedPointer<RetrieveEsnCommand>::create(nullptr));
    radio.tell(QSharedPointer<DisplayTextCommand>::create(nullptr, "<NAME>"_s, 1));
    radio.tell(QSharedPointer<AnalogKillCommand>::create(nullptr, "123"_s));
    radio.tell(QSharedPointer<DpmrKillCommand>::create(nullptr, "4567"_s));
}

/// A discoverer that finds the ports that it is told.
class Discoverer : public SerialDiscoverer
{
public:
    explicit Discoverer(const QStringList &ports) : m_ports(ports) { }

protected:
    QStringList availablePortNames() const override { return m_ports; }

private:
    const QStringList m_ports;
};

} // namespace

class TestStreamRecords : public StreamTest
{
    Q_OBJECT

private slots:
    void ofEveryKind();
    void bytesThatAreNoText();
    void noRecordWithoutClient();
    void ofEveryRadio();
};

void TestStreamRecords::ofEveryKind()
{
    QCOMPARE(status(), 3);
    Speaker radio(*m_output);
    radio.config()->esn = "28940002"_s;
    Listener client(m_path);
    QVERIFY(client.has(1));

    speakOfEveryKind(radio);
    QVERIFY(client.has(1 + int(std::size(expected))));
    for (int i = 0; i < int(std::size(expected)); ++i) {
        const QJsonObject record = client.record(i + 1);
        const QJsonDocument fields(record.value("fields"_s).toObject());
        QCOMPARE(record.value("kind"_s).toString() + u' '
                + QString::fromUtf8(fields.toJson(QJsonDocument::Compact)) + u' '
                + record.value("text"_s).toString(),
            QString::fromUtf8(expected[i]));
        QCOMPARE(record.value("record"_s).toString(), i < 12 ? "frame"_s : "command"_s);
        const QStringList about{client.text(i + 1, "gateway"_s), client.text(i + 1, "port"_s),
            client.text(i + 1, "name"_s), client.text(i + 1, "esn"_s), client.text(i + 1, "model"_s),
            client.text(i + 1, "band"_s)};
        QCOMPARE(about.join(u'|'), QHostInfo::localHostName() + "|ttyUSB0|Équipe 1|28940002|ICF-4162|UHF"_s);
        QVERIFY(!record.contains("raw"_s));
        const QDateTime time = QDateTime::fromString(client.text(i + 1, "time"_s), Qt::ISODateWithMs);
        QVERIFY(time.timeSpec() == Qt::UTC && qAbs(time.msecsTo(QDateTime::currentDateTimeUtc())) < 10000);
    }
    for (const auto state : {RadioLink::Searching, RadioLink::Identified, RadioLink::Stopped})
        emit radio.radioChanged(state);
    radio.hear(QByteArray("\xff"));
    QVERIFY(client.has(5 + int(std::size(expected))));

    m_file.writeFile("records"_s, client.lines() + "{\"record\":\"lost\",\"count\":3}\n");
    m_file.writeFile("validate.py"_s,
        "import json, jsonschema, sys\n"
        "schema = json.load(open(sys.argv[1]))\n"
        "for record in schema['$defs'].values():\n" // clients bear further members, which need a description
        "    if 'record' in record.get('properties', {}):\n"
        "        record['additionalProperties'] = False\n"
        "schema = jsonschema.Draft202012Validator(schema)\n"
        "print(sum(schema.validate(json.loads(line)) is None for line in open('records')))\n");
    QCOMPARE(runShell("python3 validate.py " QUILLON_DOCS_DIR "/stream.schema.json 2>&1"_s, m_file.folder()),
        QByteArray::number(client.lines().count('\n') + 1) + '\n');
}

void TestStreamRecords::bytesThatAreNoText()
{
    Speaker radio(*m_output);
    Listener client(m_path);
    QVERIFY(client.has(1));
    const struct
    {
        QByteArray bytes;
        QByteArray text; // as it stands in the line
        bool isText;
    } frames[] = {{QByteArray("a\0\x1b", 3), R"("a\u0000\u001b")", true},
        {"\xef\xbb\xbf!", "\"\xef\xbb\xbf!\"", true}, {"caf\xe9", "\"caf\xef\xbf\xbd\"", false},
        {"\xff!", "\"\xef\xbf\xbd!\"", false}, {"\xc3", "\"\xef\xbf\xbd\"", false}};
    int count = 1;
    for (const auto &[bytes, text, isText] : frames) {
        radio.hear(bytes);
        QVERIFY(client.has(++count));
        QVERIFY2(client.lines().contains("\"text\":" + text), client.lines());
        QCOMPARE(client.last("raw"_s), isText ? QString() : QString::fromLatin1(bytes.toBase64()));
    }
}

void TestStreamRecords::noRecordWithoutClient()
{
    Speaker radio(*m_output);
    const auto command = QSharedPointer<CountedCommand>::create();
    radio.tell(command);
    {
        Listener one(m_path);
        Listener two(m_path);
        QVERIFY(one.has(1) && two.has(1));
        QCOMPARE(command->asked, 0);
        radio.tell(command);
        QVERIFY(one.has(2) && two.has(2));
        QCOMPARE(command->asked, 1);
    }
    QTest::qWait(50);
    radio.tell(command);
    QCOMPARE(command->asked, 1);
}

void TestStreamRecords::ofEveryRadio()
{
    PluggedRadio radio(19200, "28940002"_s);
    const QString portName = radio.portName();
    m_output.reset();
    m_file.run("DELETE FROM data_forwarder"_s);
    m_file.addForwarder("STREAM"_s, m_path);
    Discoverer discoverer({"ttyUSB999"_s, portName});
    discoverer.initForwarders();
    Listener client(m_path);
    QVERIFY(client.has(1));
    const auto states = [&] {
        QStringList result;
        for (int i = 1; i < client.read(); ++i) {
            if (client.text(i, "record"_s) == "radio"_s)
                result += "%1 %2 %3 %4"_s.arg(client.text(i, "port"_s), client.text(i, "state"_s),
                    client.text(i, "esn"_s), client.text(i, "model"_s));
        }
        return result.join(u'|').replace(portName, "radio"_s);
    };
    QMetaObject::invokeMethod(&discoverer, "discover");
    QTRY_VERIFY(states().contains("identified"_s));
    radio.unplug();
    QTRY_COMPARE(states(),
        "ttyUSB999 searching  unknown|ttyUSB999 stopped  unknown|radio searching  unknown|"
        "radio identified 28940002 ICF-4162|radio stopped 28940002 ICF-4162"_s);
}

QTEST_GUILESS_MAIN(TestStreamRecords)
#include "tst_streamrecords.moc"
