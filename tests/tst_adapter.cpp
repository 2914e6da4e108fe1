#include "autokill/AutoKill.h"
#include "protocol/ActionCommands.h"
#include "protocol/Notifications.h"
#include "serial/SerialAdapter.h"
#include "support/HttpServer.h"
#include "support/LogCapture.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

#include <algorithm>
#include <memory>

namespace {

/// An adapter with the row of its radio in the database, and a record of what it emits.
class Rig : public QObject
{
    Q_OBJECT

public:
    /// A radio that is not `driven` is only listened to, at its own speed.
    explicit Rig(const QString &port, bool driven = true)
    {
        config->port = port;
        config->name = "R1"_s;
        config->autobaud = config->tx_enabled = driven;
        config->baudrate = RadioSettings().baud;
        ConfigDatabase::getInstance()->addDiscoveredAdapter(config);
        connect(&adapter, &SerialAdapter::dataReceived, this,
            [this](const QSharedPointer<IcomCommandResponse> &response) {
                received.append(response);
                frames.append(response->data());
                types.append(response->responseType());
            });
        connect(&adapter, &SerialAdapter::dataSent, this, [this](const QSharedPointer<IcomCommand> &command) {
            lastSent = command;
            sent.append(command->commandText());
        });
    }

    void start() { adapter.start(config); }
    bool isIdentified() const { return config->status == RadioAdapterConfig::Identified; }

    const QSharedPointer<RadioAdapterConfig> config = QSharedPointer<RadioAdapterConfig>::create();
    QList<QSharedPointer<IcomCommandResponse>> received;
    QByteArrayList frames;
    QList<int> types;
    QStringList sent;
    QSharedPointer<IcomCommand> lastSent;
    SerialAdapter adapter;
    QSignalSpy stopped{&adapter, &SerialAdapter::adapterStopped};
};

/// A radio that hears and is sent lines but never answers.
RadioSettings mute()
{
    RadioSettings settings;
    settings.answers = false;
    return settings;
}

constexpr int identificationTime = 15000; // ms; long enough for a busy machine
const char *const call = "*NTF,DPMR,RXVCALL,1,2,3,4,5";

} // namespace

class TestAdapter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { m_file.setKey("forward_invalid_data"_s, "false"_s); }
    void walksTheBaudRates();
    void framesOfAnUnknownRadio();
    void identifiesAndGreets();
    void flaggedCallersAndWhatOutlivesTheAdapter(); // of the radio that was greeted
    void framing();
    void commandsKeepTheirPace();
    void stopsInsideItsOwnSignals();

private:
    /// State and serial number as they stand in the file.
    QString row(const Rig &rig) const
    {
        return m_file.run("SELECT status, esn FROM radio_adapters WHERE ids = ?"_s, {rig.config->ids});
    }

    TestDatabase m_file;
    PluggedRadio m_radio{RadioSettings{19200, "0289"_s, "first"_s, {}}};
    std::unique_ptr<Rig> m_rig; // of a radio that is greeted while the first tests run
    QElapsedTimer m_clock;
    QList<qint64> m_times; // of the lines that it has received
};

void TestAdapter::initTestCase()
{
    ConfigDatabase::getInstance(m_file.path());
    connect(&m_radio, &SimulatedRadio::lineReceived, this, [this] { m_times.append(m_clock.elapsed()); });
    m_rig = std::make_unique<Rig>(m_radio.portName());
    m_rig->start();
    m_clock.start();
}

void TestAdapter::walksTheBaudRates()
{
    LogCapture log;
    QTRY_VERIFY(m_radio.isGreeted());
    QCOMPARE(log.count("let store the radio ESN :  \"0289\""_s), 1);

    m_file.setKey("forward_invalid_data"_s, "true"_s);
    struct Walk
    {
        PluggedRadio radio;
        QList<int> speeds;
        Rig rig{radio.portName()};
        QList<int> seen{};
        qint64 end = 0;
    };
    constexpr int untried = 57600;
    const QList<int> every{19200, 9600, 4800, 2400, 1200, 38400};
    Walk walks[] = {{PluggedRadio(untried), every}, {PluggedRadio(untried), {4800}},
        {PluggedRadio(4800), every.mid(0, 3)}};
    QElapsedTimer clock;
    clock.start();
    for (Walk &each : walks) {
        each.rig.config->autobaud = each.speeds.size() > 1;
        each.rig.config->baudrate = 4800;
        each.rig.start();
        each.seen.append(each.radio.lineSpeed());
    }
    const auto hasEnded = [&](Walk &each) {
        if (each.radio.lineSpeed() != each.seen.last())
            each.seen.append(each.radio.lineSpeed());
        if (each.end == 0 && (each.rig.isIdentified() || !each.rig.stopped.isEmpty()))
            each.end = clock.elapsed();
        return each.end > 0;
    };
    QTRY_COMPARE_WITH_TIMEOUT(
        std::count_if(std::begin(walks), std::end(walks), hasEnded), 3, identificationTime);
    for (Walk &each : walks) {
        const int tries = each.speeds.size();
        const bool givesUp = each.radio.settings().baud == untried;
        QCOMPARE(each.seen.mid(0, tries), each.speeds); // a port that is closed gets back the speed it had
        QCOMPARE(each.rig.sent.count("*GET,INFO,ESN"_s), tries);
        QCOMPARE(each.rig.types.value(0), givesUp ? 0 : 3); // noise makes no frame
        QVERIFY(each.end >= tries * 900 - (givesUp ? 0 : 500));
        QCOMPARE(row(each.rig), givesUp ? "2|"_s : "1|28940001"_s);
        each.rig.adapter.stop();
        QCOMPARE(each.rig.stopped.size(), 1);
    }
}

void TestAdapter::framesOfAnUnknownRadio()
{
    using Case = std::tuple<bool, bool, QString, bool>;
    for (const auto &[transmits, autobaud, forwardInvalidData, areForwarded] :
        {Case(false, false, "false"_s, true), Case(false, true, "false"_s, false),
            Case(true, false, "false"_s, false), Case(true, true, "True"_s, false),
            Case(true, true, "true"_s, true)}) {
        m_file.setKey("forward_invalid_data"_s, forwardInvalidData);
        PluggedRadio radio(mute());
        Rig rig(radio.portName());
        rig.config->tx_enabled = transmits;
        rig.config->autobaud = autobaud;
        rig.start();
        LogCapture log;
        rig.adapter.enqueueCommand(QSharedPointer<DisplayTextCommand>::create(nullptr, "HI"_s, 5000));
        QVERIFY(radio.deliver("\x02*NTF,INFO,COMMENT,early\x03"));
        QVERIFY(radio.hear(call));
        QTest::qWait(600); // longer than a tick
        QCOMPARE(rig.types, areForwarded ? QList<int>({99, 99}) : QList<int>());
        QCOMPARE(log.count("NON Valid ESN :  \"*NTF,INFO,COMMENT,early\""_s), transmits ? 1 : 0);
        QCOMPARE(radio.received().value(0), QByteArray(transmits ? "*GET,INFO,ESN" : ""));
        QCOMPARE(rig.sent.value(0), transmits && areForwarded ? "*GET,INFO,ESN"_s : QString());
        QVERIFY(!rig.isIdentified());
    }
}

void TestAdapter::identifiesAndGreets()
{
    QString greeting = "Radio nommee R1 branchee sur le port "_s + m_radio.portName();
    const QByteArrayList expected{"*GET,INFO,ESN", "*SET,UI,TEXT,", "*GET,INFO,COMMENT,1",
        "*GET,INFO,COMMENT,2", "*GET,INFO,DREV", "*GET,INFO,REV", "*GET,INFO,FREV",
        "*SET,UI,TEXT," + greeting.toUtf8()};
    QTRY_VERIFY_WITH_TIMEOUT(m_radio.isGreeted(), identificationTime);
    QCOMPARE(m_radio.received().mid(0, expected.size()), expected);
    QVERIFY(m_times.at(0) >= 450); // the first tick
    QVERIFY2(m_times.at(1) - m_times.at(0) < 250, "the command after the ESN goes out at once");
    QVERIFY2(m_times.at(2) - m_times.at(1) >= 400, "the next one on the next tick, as the display is mute");
    QVERIFY2(m_times.at(7) - m_times.at(2) < 250, "every further answer brings the next command at once");

    // The frame that identifies the radio comes twice: as the answer, and as a frame of its own.
    QCOMPARE(m_rig->frames.mid(0, 3),
        (QByteArrayList{"*NTF,INFO,ESN,0289", "*NTF,INFO,ESN,0289", "*NTF,INFO,COMMENT,first"}));
    QCOMPARE(m_rig->types.mid(0, 3), (QList<int>{3, 99, 1}));
    QVERIFY(m_rig->received.at(0)->timestamp().isValid());
    QCOMPARE(m_rig->sent.value(0), "*GET,INFO,COMMENT,1"_s); // nothing is announced before it is identified
    QCOMPARE(row(*m_rig), "1|0289"_s);

    QStringList texts{QString(), greeting};
    while (greeting.size() > 12)
        texts.append(greeting.remove(0, 5));
    texts.append(QString());
    QTRY_COMPARE_WITH_TIMEOUT(m_radio.shown, texts, identificationTime);
    const int last = m_times.size() - 1;
    QVERIFY(m_times.at(last) - m_times.at(last - 1) >= 4000); // for as long as the text can be read
}

void TestAdapter::flaggedCallersAndWhatOutlivesTheAdapter()
{
    const TestCertificates certificates;
    HttpServer server(&certificates);
    server.otherAnswer.body = R"({"entities":[{"externalId":"3"},{"externalId":"0055"}]})";
    m_file.setKey("autokill_enabled"_s, "true"_s);
    m_file.setKey("autokill_url"_s, server.url());
    AutoKill::getInstance()->start();
    QTRY_VERIFY(AutoKill::getInstance()->isFlagged("3"_s));
    const int before = m_rig->types.size();
    const QByteArrayList written = m_radio.received();
    LogCapture log;
    for (const char *line : {"*NTF,DPMR,RXMSG,malformed", "*NTF,CTRL,BATVST,L1\"", call})
        QVERIFY(m_radio.hear(line));
    QTRY_COMPARE(m_rig->types.mid(before), (QList<int>{10, 6}));
    const auto response = m_rig->received.last();

    // The kill command is announced and logged, and never written.
    const QString dpmrKill = "*SET,DPMR,TXSTAT,IND,3,0047312,30,ACK"_s;
    const QPair<const char *, QString> callers[] = {{"*NTF,DPMR,RXVCALL,3,3,5,3,3", {}},
        {"*NTF,DPMR,RXSTAT,1,2,3,4,5,6", dpmrKill}, {"*NTF,DPMR,RXMSG,1,2,3,4,5,GPS,\"x\"", dpmrKill},
        {"*NTF,5T,RXCODE,0055,0,0", {}}, {"*NTF,5T,RXCODE,55,0,0", "*SET,5T,TXCODE,55DCDC"_s}};
    QTRY_COMPARE(m_rig->sent.last(), dpmrKill);
    QElapsedTimer clock;
    for (const auto &[frame, kill] : callers) {
        log.clear();
        clock.start();
        QVERIFY(m_radio.hear(frame));
        QTRY_COMPARE(m_rig->frames.last(), QByteArray(frame));
        QCOMPARE(log.count("Blacklisted radio detected :  "_s), kill.isEmpty() ? 0 : 1);
        QTRY_COMPARE(log.count("PCCMDV2 Command to send :  \"%1\""_s.arg(kill)), kill.isEmpty() ? 0 : 1);
        QVERIFY(kill.isEmpty() || kill.startsWith(m_rig->sent.last()));
    }
    QVERIFY2(clock.elapsed() >= 950 && clock.elapsed() < 2900, "a second after the tones, at the next tick");
    QCOMPARE(m_radio.received(), written);
    const auto command = m_rig->lastSent;

    QCOMPARE(command->parent(), &m_rig->adapter);
    QCOMPARE(response->parent(), &m_rig->adapter);
    m_rig.reset();
    QVERIFY(!command->parent() && !response->parent());
    QVERIFY(!command->commandText().isEmpty());
    QCOMPARE(response->data(), QByteArray(call));
    response->process();
}

void TestAdapter::framing()
{
    struct Case
    {
        QByteArrayList reads;
        QByteArrayList frames;
        PluggedRadio radio{};
        Rig rig{radio.portName(), false};
    };
    Case cases[] = {{{"\x02one\x03tw", "o\x03"}, {"onetw", "two"}}, // what is glued comes again
        {{"\x02one\x03junk\x02two\x03"}, {"onejunk", "two"}}, {{"junk\x03\x02one\x03"}, {"junk", "one"}},
        {{"\x02on\x02two\x03"}, {"two"}}, {{"\x02one\x03\x03tail\x03"}, {"onetail"}},
        {{"\x02\x03\x03"}, {""}}, {{QByteArray("\x02\0\xff\x03", 4)}, {QByteArray("\0\xff", 2)}},
        {{'\x02' + QByteArray(60000, 'x') + '\x03'}, {QByteArray(60000, 'x')}},
        {{'\x02' + QByteArray(70000, 'x'), "\x02one\x03"}, {"one"}}};
    LogCapture log;
    for (Case &each : cases)
        each.rig.start();
    for (int read = 0; read < 2; ++read) {
        for (Case &each : cases)
            QVERIFY(each.radio.deliver(each.reads.value(read)));
        QTest::qWait(300); // let them arrive on their own
    }
    for (const Case &each : cases)
        QTRY_COMPARE(each.rig.frames, each.frames);
    QVERIFY2(
        log.text().endsWith("without an end from port \"%1\""_s.arg(std::rbegin(cases)->radio.portName())),
        qPrintable(log.text()));
    QVERIFY(!log.text().contains(u'\n'));
}

void TestAdapter::commandsKeepTheirPace()
{
    PluggedRadio radio(mute());
    Rig rig(radio.portName());
    QElapsedTimer sinceFrame;
    qint64 shortestPause = identificationTime;
    connect(&rig.adapter, &SerialAdapter::dataReceived, [&] { sinceFrame.start(); });
    connect(&rig.adapter, &SerialAdapter::dataSent,
        [&] { shortestPause = qMin(shortestPause, sinceFrame.elapsed()); });
    rig.start();
    QTRY_COMPARE(radio.received().size(), 1);
    QVERIFY(radio.hear("*NTF,INFO,ESN,1"));
    QTRY_VERIFY(rig.isIdentified());
    m_file.setKey("forward_invalid_data"_s, "TRUE"_s); // neither word: nothing is announced any more
    QTRY_COMPARE_WITH_TIMEOUT(radio.received().count("*GET,INFO,COMMENT,1"), 4, identificationTime);
    QVERIFY2(sinceFrame.elapsed() >= 1800 && sinceFrame.elapsed() < 4000, "once each tick");
    QCOMPARE(rig.sent, QStringList());

    m_file.setKey("forward_invalid_data"_s, "false"_s);
    for (int heard = 0; heard < 4; ++heard) {
        QVERIFY(radio.hear(call));
        QTest::qWait(300);
    }
    QCOMPARE(rig.types.mid(2), QVector<int>(4, 6).toList());
    QTRY_VERIFY(rig.sent.contains("*GET,INFO,COMMENT,1"_s));
    QVERIFY2(shortestPause >= 450, "each frame puts the next command off");
    QVERIFY(rig.lastSent->timestamp().isValid());
}

void TestAdapter::stopsInsideItsOwnSignals()
{
    m_file.setKey("forward_invalid_data"_s, "true"_s);
    PluggedRadio radios[3];
    Rig inSent(radios[0].portName());
    Rig inReceived(radios[1].portName(), false);
    Rig inAnswer(radios[2].portName());
    connect(&inSent.adapter, &SerialAdapter::dataSent, &inSent.adapter, &SerialAdapter::stop);
    for (Rig *rig : {&inReceived, &inAnswer})
        connect(&rig->adapter, &SerialAdapter::dataReceived, &rig->adapter, &SerialAdapter::stop);
    for (Rig *rig : {&inSent, &inReceived, &inAnswer})
        rig->start();
    QVERIFY(radios[1].deliver("\x02one\x03\x02two\x03"));
    for (Rig *rig : {&inSent, &inReceived, &inAnswer})
        QTRY_COMPARE(rig->stopped.size(), 1);
    QTest::qWait(700); // they stay silent for longer than a tick
    QVERIFY(radios[0].received().isEmpty() && inSent.stopped.size() == 1);
    QCOMPARE(inReceived.frames, QByteArrayList{"one"});
    QCOMPARE(inAnswer.types, QList<int>{3});
    QCOMPARE(radios[2].received(), QByteArrayList{"*GET,INFO,ESN"});
}

QTEST_GUILESS_MAIN(TestAdapter)
#include "tst_adapter.moc"
