#include "protocol/ActionCommands.h"
#include "protocol/Notifications.h"
#include "serial/MyQSerialPort.h"
#include "serial/SerialAdapter.h"
#include "support/LogCapture.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

#include <memory>

namespace {

/// An adapter with the row of its radio in the database, and a record of what it emits.
class Rig : public QObject
{
    Q_OBJECT

public:
    explicit Rig(const QString &port)
    {
        config->port = port;
        config->name = "R1"_s;
        config->autobaud = config->tx_enabled = config->enabled = true;
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

/// A radio that is only listened to, at its own speed.
class ListeningRig : public Rig
{
public:
    explicit ListeningRig(const PluggedRadio &radio) : Rig(radio.portName())
    {
        config->autobaud = config->tx_enabled = false;
        config->baudrate = radio.settings().baud;
        start();
    }
};

constexpr int identificationTime = 15000; // ms; long enough for a busy machine
const char *const call = "*NTF,DPMR,RXVCALL,1,2,3,4,5";

} // namespace

class TestAdapter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void init() { m_file.setKey("forward_invalid_data"_s, "false"_s); }
    void identifiesAndGreets();
    void walksTheBaudRates();
    void listensOnly();
    void framing_data();
    void framing();
    void framesOfAnUnknownRadio();
    void notificationsOutliveTheAdapter();
    void stopsInsideItsOwnSignals();
    void portLogsOnlyItsOwnSignal();

private:
    /// State and serial number as they stand in the file.
    QString row(const Rig &rig) const
    {
        return m_file.run("SELECT status, esn FROM radio_adapters WHERE ids = ?"_s, {rig.config->ids});
    }

    TestDatabase m_file;
};

void TestAdapter::identifiesAndGreets()
{
    RadioSettings settings;
    settings.esn = "0289"_s;
    settings.comment1 = "first"_s;
    PluggedRadio radio(settings);
    QElapsedTimer clock;
    QList<qint64> times;
    connect(&radio, &SimulatedRadio::lineReceived, this, [&] { times.append(clock.elapsed()); });

    LogCapture log;
    Rig rig(radio.portName());
    rig.start();
    clock.start();
    QString greeting = "Radio nommee R1 branchee sur le port "_s + radio.portName();
    const QByteArrayList expected{"*GET,INFO,ESN", "*SET,UI,TEXT,", "*GET,INFO,COMMENT,1",
        "*GET,INFO,COMMENT,2", "*GET,INFO,DREV", "*GET,INFO,REV", "*GET,INFO,FREV",
        "*SET,UI,TEXT," + greeting.toUtf8()};
    QTRY_VERIFY_WITH_TIMEOUT(radio.isGreeted(), identificationTime);
    QCOMPARE(radio.received().mid(0, expected.size()), expected);
    QVERIFY(times.at(0) >= 450); // the first tick
    QVERIFY2(times.at(1) - times.at(0) < 250, "the command after the ESN goes out at once");
    QVERIFY2(times.at(2) - times.at(1) >= 400, "the next one on the next tick, since the display is mute");
    QVERIFY2(times.at(7) - times.at(2) < 250, "every further answer brings the next command at once");

    // The frame that identifies the radio comes twice: as the answer, and as a frame of its own.
    QCOMPARE(rig.frames.mid(0, 3),
        (QByteArrayList{"*NTF,INFO,ESN,0289", "*NTF,INFO,ESN,0289", "*NTF,INFO,COMMENT,first"}));
    QCOMPARE(rig.types.mid(0, 3), (QList<int>{3, 99, 1}));
    QVERIFY(rig.received.at(0)->timestamp().isValid());
    QCOMPARE(rig.sent.value(0), "*GET,INFO,COMMENT,1"_s); // nothing is announced before it is identified
    QCOMPARE(log.count("let store the radio ESN :  \"0289\""_s), 1);
    QCOMPARE(row(rig), "1|0289"_s);

    QStringList texts{QString(), greeting};
    while (greeting.size() > 12)
        texts.append(greeting.remove(0, 5));
    texts.append(QString());
    QTRY_COMPARE_WITH_TIMEOUT(radio.shown, texts, 12000);
}

void TestAdapter::walksTheBaudRates()
{
    m_file.setKey("forward_invalid_data"_s, "true"_s);
    PluggedRadio other(57600); // none of the speeds that are tried
    PluggedRadio slow(4800);
    const QList<int> every{19200, 9600, 4800, 2400, 1200, 38400};
    const QPair<PluggedRadio *, QList<int>> cases[] = {
        {&other, every}, {&other, {4800}}, {&slow, every.mid(0, 3)}};
    for (const auto &each : cases) {
        const PluggedRadio &radio = *each.first;
        const int tries = each.second.size();
        Rig rig(radio.portName());
        rig.config->autobaud = tries > 1;
        rig.config->baudrate = 4800;
        QElapsedTimer clock;
        clock.start();
        rig.start();
        QList<int> speeds{radio.lineSpeed()};
        const auto hasEnded = [&] {
            if (radio.lineSpeed() != speeds.last())
                speeds.append(radio.lineSpeed());
            return rig.isIdentified() || !rig.stopped.isEmpty();
        };
        QTRY_VERIFY_WITH_TIMEOUT(hasEnded(), identificationTime);
        QCOMPARE(speeds.mid(0, tries), each.second); // a port that is closed gets back the speed it had
        QCOMPARE(rig.sent.count("*GET,INFO,ESN"_s), tries);
        const bool givesUp = &radio == &other;
        QVERIFY(clock.elapsed() >= tries * 900 - (givesUp ? 0 : 500));
        QCOMPARE(row(rig), givesUp ? "2|"_s : "1|28940001"_s);
        rig.adapter.stop();
        QCOMPARE(rig.stopped.size(), 1);
    }
}

void TestAdapter::listensOnly()
{
    PluggedRadio radio;
    ListeningRig rig(radio);
    rig.adapter.enqueueCommand(QSharedPointer<DisplayTextCommand>::create(nullptr, "HI"_s, 5000));
    QTest::qWait(700); // longer than a tick
    QVERIFY(radio.hear("*NTF,INFO,ESN,1"));
    QVERIFY(radio.hear(call));
    QTRY_COMPARE(rig.types, (QList<int>{99, 99}));
    QVERIFY(radio.received().isEmpty());
    QVERIFY(!rig.isIdentified() && rig.stopped.isEmpty());
}

void TestAdapter::framing_data()
{
    QTest::addColumn<QByteArrayList>("reads");
    QTest::addColumn<QByteArrayList>("frames");
    const auto row = [](const char *name, const QByteArrayList &reads, const QByteArrayList &frames) {
        QTest::newRow(name) << reads << frames;
    };
    row("in two reads", {"\x02one\x03\x02tw", "o\x03"}, {"one", "two"});
    row("junk behind", {"\x02one\x03junk\x02two\x03"}, {"onejunk", "two"});
    row("junk before", {"junk\x03\x02one\x03"}, {"junk", "one"});
    row("start lost", {"\x02on\x02two\x03"}, {"two"});
    row("several ends", {"\x02one\x03\x03tail\x03"}, {"onetail"});
    row("empty", {"\x02\x03\x03"}, {""});
    row("NUL and high bytes", {QByteArray("\x02\0\xff\x03", 4)}, {QByteArray("\0\xff", 2)});
    row("long", {'\x02' + QByteArray(60000, 'x') + '\x03'}, {QByteArray(60000, 'x')});
    row("without an end", {'\x02' + QByteArray(70000, 'x'), "\x02one\x03"}, {"one"});
}

void TestAdapter::framing()
{
    QFETCH(QByteArrayList, reads);
    QFETCH(QByteArrayList, frames);
    PluggedRadio radio;
    ListeningRig rig(radio);
    LogCapture log;
    for (const QByteArray &bytes : qAsConst(reads)) {
        QVERIFY(radio.deliver(bytes));
        QTest::qWait(bytes.size() > 60000 ? 200 : 20); // let them arrive on their own
    }
    QTRY_COMPARE(rig.frames, frames);
    QCOMPARE(log.count("without an end from port \"%1\""_s.arg(radio.portName())),
        reads.first().size() > 70000 ? 1 : 0);
    QVERIFY(!log.text().contains(u'\n'));
}

void TestAdapter::framesOfAnUnknownRadio()
{
    m_file.setKey("forward_invalid_data"_s, "True"_s); // not the word that forwards and announces
    RadioSettings mute;
    mute.answers = false;
    PluggedRadio radio(mute);
    Rig rig(radio.portName());
    rig.start();
    LogCapture log;
    QVERIFY(radio.hear("*NTF,INFO,COMMENT,early"));
    QTRY_COMPARE(log.count("NON Valid ESN :  \"*NTF,INFO,COMMENT,early\""_s), 1);
    QVERIFY(rig.received.isEmpty());
    m_file.setKey("forward_invalid_data"_s, "true"_s);
    QVERIFY(radio.hear(call));
    QTRY_COMPARE(rig.types, QList<int>{99});

    // The head of the queue waits for another kind of answer.
    const auto notification = parseNotification(&rig.adapter, call);
    QMetaObject::invokeMethod(
        &rig.adapter, "handleCommandResponse", Q_ARG(QSharedPointer<IcomCommandResponse>, notification));
    QCOMPARE(log.text(QtWarningMsg).section(u'\n', -1), "Got a response 6 while 3 was expected. Ignored."_s);
    QVERIFY(!rig.isIdentified());

    m_file.setKey("forward_invalid_data"_s, "True"_s);
    QTRY_VERIFY_WITH_TIMEOUT(!radio.received().isEmpty(), identificationTime);
    QCOMPARE(rig.sent, QStringList());
}

void TestAdapter::notificationsOutliveTheAdapter()
{
    PluggedRadio radio;
    auto rig = std::make_unique<Rig>(radio.portName());
    rig->start();
    QTRY_VERIFY_WITH_TIMEOUT(radio.isIdle(), identificationTime);
    const int before = rig->types.size();
    for (const char *line : {"*NTF,DPMR,RXMSG,malformed", "*NTF,CTRL,BATVST,L1\"", call})
        QVERIFY(radio.hear(line));
    QTRY_COMPARE(rig->types.mid(before), (QList<int>{10, 6}));
    const auto command = rig->lastSent;
    const auto response = rig->received.last();
    QCOMPARE(command->parent(), &rig->adapter);
    QCOMPARE(response->parent(), &rig->adapter);

    rig.reset();
    QVERIFY(!command->parent() && !response->parent());
    QVERIFY(!command->commandText().isEmpty());
    QCOMPARE(response->data(), QByteArray(call));
    response->process();
}

void TestAdapter::stopsInsideItsOwnSignals()
{
    m_file.setKey("forward_invalid_data"_s, "true"_s);
    PluggedRadio radio;
    Rig inSent(radio.portName());
    connect(&inSent.adapter, &SerialAdapter::dataSent, &inSent.adapter, &SerialAdapter::stop);
    inSent.start();
    QTRY_COMPARE(inSent.stopped.size(), 1);
    QVERIFY(radio.received().isEmpty());

    ListeningRig inReceived(radio);
    connect(&inReceived.adapter, &SerialAdapter::dataReceived, &inReceived.adapter, &SerialAdapter::stop);
    QVERIFY(radio.deliver("\x02one\x03\x02two\x03"));
    QTRY_COMPARE(inReceived.stopped.size(), 1);
    QCOMPARE(inReceived.frames, QByteArrayList{"one"});
}

void TestAdapter::portLogsOnlyItsOwnSignal()
{
    MyQSerialPort port;
    LogCapture log;
    emit static_cast<QSerialPort &>(port).errorOccurred(QSerialPort::ResourceError);
    QCOMPARE(log.text(), QString());
    emit port.errorOccurred(QSerialPort::ResourceError);
    QCOMPARE(log.text(QtInfoMsg), "error occurred :  QSerialPort::ResourceError"_s);
}

QTEST_GUILESS_MAIN(TestAdapter)
#include "tst_adapter.moc"
