#include "forwarders/StreamConnection.h"
#include "forwarders/StreamDataForwarder.h"
#include "forwarders/StreamSocket.h"
#include "protocol/ActionCommands.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"
#include "support/LogCapture.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

#include <QtNetwork>

#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// An adapter that speaks to one output.
class Speaker : public RecordingLink
{
public:
    explicit Speaker(const DataForwarder &forwarder, const QString &port = "ttyUSB0"_s)
        : RecordingLink("Équipe 1"_s, port)
    {
        connect(this, &RecordingLink::dataReceived, &forwarder, &DataForwarder::forward);
        connect(this, &RecordingLink::dataSent, &forwarder, &DataForwarder::forwardSent);
        connect(this, &RecordingLink::radioChanged, &forwarder, &DataForwarder::radioChanged);
    }
    void hear(const QSharedPointer<IcomCommandResponse> &response)
    {
        response->stampNow();
        emit dataReceived(response);
    }
    void hear(const QByteArray &frame) { hear(parseNotification(this, frame)); }
    /// The answer to a query.
    void hear(IcomCommand &query, const QByteArray &frame)
    {
        connect(&query, &IcomCommand::commandResponse, this,
            [this](const QSharedPointer<IcomCommandResponse> &response) { hear(response); });
        query.validResponse(frame);
    }
    void tell(const QSharedPointer<IcomCommand> &command)
    {
        command->setParent(this);
        command->stampNow();
        emit dataSent(command);
        command->setParent(nullptr); // it is shared
    }
};

/// A program that has joined the stream.
class Listener
{
public:
    explicit Listener(const QString &path) { m_socket.connectToServer(path); }

    /// Waits for so many records in all.
    bool has(int count)
    {
        return QTest::qWaitFor([&] { return read() >= count; });
    }
    /// How many have arrived.
    int read()
    {
        while (m_socket.canReadLine()) {
            m_lines.append(m_socket.readLine());
            m_records.append(QJsonDocument::fromJson(m_lines.last()).object());
        }
        return m_records.size();
    }
    QString text(int index, const QString &member) const
    {
        return m_records.at(index).value(member).toVariant().toString();
    }
    QString last(const QString &member) const { return text(m_records.size() - 1, member); }
    QJsonObject record(int index) const { return m_records.at(index); }
    QByteArray lines() const { return m_lines.join(); }
    QLocalSocket &socket() { return m_socket; }

private:
    QLocalSocket m_socket;
    QByteArrayList m_lines;
    QList<QJsonObject> m_records;
};

/// A command that counts how often it is asked for its line.
class CountedCommand : public DisplayTextCommand
{
public:
    CountedCommand() : DisplayTextCommand(nullptr, "text"_s, 1) { }
    QString announcedText() override
    {
        ++asked;
        return DisplayTextCommand::announcedText();
    }
    int asked = 0;
};

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

} // namespace

class TestStream : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void init();
    void cleanup() { m_output.reset(); }
    void recordsOfEveryKind();
    void bytesThatAreNoText();
    void clientsComeAndGo();
    void aSlowClientIsToldWhatItLost();
    void noRecordWithoutClient();
    void theSocketFile();
    void occupiedPlaces();
    void tcp();

private:
    int status() const { return m_file.forwarderStatus(m_id); }

    TestDatabase m_file;
    const QString m_path = m_file.file("stream"_s);
    int m_id = 0;
    std::unique_ptr<StreamDataForwarder> m_output;
};

void TestStream::init()
{
    m_id = m_file.addForwarder("STREAM"_s, m_path);
    m_output = std::make_unique<StreamDataForwarder>(nullptr, m_id);
}

void TestStream::recordsOfEveryKind()
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

    QProcess validator;
    validator.start("python3"_s,
        {"-c"_s,
            "import json, jsonschema, sys\n"
            "schema = jsonschema.Draft202012Validator(json.load(open(sys.argv[1])))\n"
            "for line in sys.stdin:\n"
            "    schema.validate(json.loads(line))\n"_s,
            QUILLON_DOCS_DIR "/stream.schema.json"_s});
    validator.write(client.lines() + "{\"record\":\"lost\",\"count\":3}\n");
    validator.closeWriteChannel();
    QVERIFY(validator.waitForFinished());
    const QByteArray complaint = validator.readAllStandardError();
    QVERIFY2(validator.exitCode() == 0, complaint);
}

void TestStream::bytesThatAreNoText()
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
        {"\xc3", "\"\xef\xbf\xbd\"", false}};
    int count = 1;
    for (const auto &[bytes, text, isText] : frames) {
        radio.hear(bytes);
        QVERIFY(client.has(++count));
        QVERIFY2(client.lines().contains("\"text\":" + text), client.lines());
        QCOMPARE(client.last("raw"_s), isText ? QString() : QString::fromLatin1(bytes.toBase64()));
    }
}

void TestStream::clientsComeAndGo()
{
    Speaker first(*m_output, "ttyUSB0"_s);
    Speaker second(*m_output, "ttyUSB1"_s);
    emit first.radioChanged(RadioLink::Searching);
    emit second.radioChanged(RadioLink::Searching);
    emit second.radioChanged(RadioLink::Identified);
    Speaker gone(*m_output, "ttyUSB2"_s);
    emit gone.radioChanged(RadioLink::Searching);
    emit gone.radioChanged(RadioLink::Stopped);

    std::vector<std::unique_ptr<Listener>> clients;
    for (int i = 0; i < 64; ++i) {
        clients.push_back(std::make_unique<Listener>(m_path));
        QVERIFY(clients.back()->has(3));
    }
    QCOMPARE(clients[63]->text(0, "record"_s), "gateway"_s);
    QCOMPARE(clients[63]->text(1, "port"_s) + clients[63]->text(1, "state"_s), "ttyUSB0searching"_s);
    QCOMPARE(clients[63]->text(2, "port"_s) + clients[63]->text(2, "state"_s), "ttyUSB1identified"_s);
    LogCapture log;
    for (int i = 0; i < 2; ++i) { // one too many, twice
        Listener turnedAway(m_path);
        QTRY_COMPARE(turnedAway.socket().state(), QLocalSocket::UnconnectedState);
    }
    QCOMPARE(log.count("64"_s), 1);

    clients[0]->socket().write(QByteArray(500000, 'x')); // read and dropped
    clients[5].reset();
    QTest::qWait(50);
    QTRY_COMPARE(clients[0]->socket().bytesToWrite(), 0);
    first.hear("one");
    emit gone.radioChanged(RadioLink::Stopped);
    Listener last(m_path);
    QVERIFY(last.has(3));
    first.hear("two");
    for (const auto &client : clients) {
        if (!client)
            continue;
        QVERIFY(client->has(6));
        QCOMPARE(client->text(3, "text"_s) + client->text(4, "state"_s) + client->last("text"_s),
            "onestoppedtwo"_s);
    }
    QVERIFY(last.has(4));
    QCOMPARE(last.last("text"_s), "two"_s);
}

void TestStream::aSlowClientIsToldWhatItLost()
{
    Speaker radio(*m_output);
    Listener quick(m_path);
    const int slow = StreamSocket::connectToPath(m_path);
    QVERIFY(quick.has(1) && slow != -1);
    QTest::qWait(50);
    constexpr int sent = 3000;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < sent; ++i) {
        radio.hear(QByteArray::number(i) + QByteArray(1000, ' '));
        if (i % 50 == 0)
            QVERIFY(quick.has(i + 2)); // the other one misses nothing meanwhile
    }
    QVERIFY2(quick.has(1 + sent) && clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));

    radio.hear("short"); // for which there would be room
    QVERIFY(quick.has(2 + sent));
    // The slow one begins to read: an unbroken row, the number of those that are missing, and the rest.
    QByteArray read;
    char part[65536];
    const auto readOn = [&] {
        const ssize_t size = ::read(slow, part, sizeof part);
        if (size > 0)
            read.append(part, int(size));
        return read;
    };
    QTRY_VERIFY(readOn().contains("\"lost\""));
    radio.hear("after");
    QTRY_VERIFY(readOn().contains("after"));
    ::close(slow);
    int next = 0;
    for (const QByteArray &line : read.split('\n').mid(1, -1)) {
        const QJsonObject record = QJsonDocument::fromJson(line).object();
        const QString text = record.value("text"_s).toString().trimmed();
        if (record.value("record"_s).toString() == "lost"_s) {
            QVERIFY2(next > 800, qPrintable(QString::number(next))); // 1 MiB was kept
            next += record.value("count"_s).toInt();
        } else if (text == "after"_s) {
            QCOMPARE(next, sent + 1);
        } else if (!text.isEmpty()) {
            QCOMPARE(text.toInt(), next++);
        }
    }
    QCOMPARE(next, sent + 1);
}

void TestStream::noRecordWithoutClient()
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

void TestStream::theSocketFile()
{
    struct stat file = {};
    QCOMPARE(::stat(QFile::encodeName(m_path).constData(), &file), 0);
    QVERIFY(S_ISSOCK(file.st_mode) && (file.st_mode & 07777) == 0660);

    LogCapture log;
    const int otherId = m_file.addForwarder("STREAM"_s, m_path);
    StreamDataForwarder other(nullptr, otherId);
    QCOMPARE(m_file.forwarderStatus(otherId), 4); // somebody listens there
    QCOMPARE(log.text(), "Stream cannot listen on \"%1\" : \"Address already in use\""_s.arg(m_path));
    Listener client(m_path);
    QVERIFY(client.has(1));
    m_output.reset();
    QTRY_COMPARE(client.socket().state(), QLocalSocket::UnconnectedState);
    QVERIFY(!QFileInfo::exists(m_path));
    QElapsedTimer clock;
    clock.start();
    QTRY_COMPARE(m_file.forwarderStatus(otherId), 3); // it tries again every 2 s
    QVERIFY(clock.elapsed() < 3500);
    Listener further(m_path);
    QVERIFY(further.has(1));

    QVERIFY(QFile::remove(m_path)); // what lies there now is another's
    m_file.writeFile("stream"_s, "kept");
}

void TestStream::occupiedPlaces()
{
    QCOMPARE(m_file.readFile("stream"_s), QByteArray("kept")); // by the output that ended, and by this one
    QCOMPARE(status(), 4);
    m_output.reset();
    QVERIFY(QFile::remove(m_path));

    // As a daemon that was killed leaves it.
    const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(m_path).constData(), sizeof address.sun_path);
    QCOMPARE(::bind(stale, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ::close(stale);
    init();
    QCOMPARE(status(), 3);
    Listener client(m_path);
    QVERIFY(client.has(1));

    const QString folder = m_file.file("later"_s);
    for (const QString &target : {folder + "/stream"_s, "relative"_s, m_path + QString(100, u'x'), ""_s}) {
        LogCapture log;
        m_id = m_file.addForwarder("STREAM"_s, target);
        m_output = std::make_unique<StreamDataForwarder>(nullptr, m_id);
        QCOMPARE(status(), 4);
        QCOMPARE(log.count("Stream cannot listen on \"%1\""_s.arg(target)), 1);
        if (target.startsWith(folder)) {
            QVERIFY(QDir().mkdir(folder));
            QTRY_COMPARE(status(), 3);
        }
    }
}

void TestStream::tcp()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const quint16 port = server.serverPort();
    m_id = m_file.addForwarder("STREAM"_s, "127.0.0.1"_s, port);
    m_output = std::make_unique<StreamDataForwarder>(nullptr, m_id);
    QCOMPARE(status(), 4);
    server.close();
    QTRY_COMPARE(status(), 3);

    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, port);
    QTRY_VERIFY(client.canReadLine());
    QVERIFY(client.readLine().contains("\"gateway\""));
    Speaker radio(*m_output);
    radio.hear("over TCP");
    QTRY_VERIFY(client.canReadLine());
    QVERIFY(client.readLine().contains("over TCP"));
    client.abort();
    QTest::qWait(50);
    const auto command = QSharedPointer<CountedCommand>::create();
    radio.tell(command);
    QCOMPARE(command->asked, 0);
}

QTEST_GUILESS_MAIN(TestStream)
#include "tst_stream.moc"
