#include "config/ConfigDatabase.h"
#include "protocol/ActionCommands.h"
#include "protocol/Notifications.h"
#include "serial/SerialAdapter.h"
#include "support/LogCapture.h"
#include "support/TestDatabase.h"
#include "tools/radiosim/SimulatedRadio.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

namespace {

/// An adapter with the row of its radio in the database, and a record of what it emits.
class Rig : public QObject
{
    Q_OBJECT

public:
    explicit Rig(const QString &port)
    {
        config->port = port;
        config->name = QStringLiteral("R1");
        config->autobaud = config->tx_enabled = config->enabled = true;
        ConfigDatabase::getInstance()->addDiscoveredAdapter(config);
        connect(&adapter, &SerialAdapter::dataReceived, this,
            [this](const QSharedPointer<IcomCommandResponse> &response) { received.append(response); });
        connect(&adapter, &SerialAdapter::dataSent, this,
            [this](const QSharedPointer<IcomCommand> &command) { sent.append(command->commandText()); });
    }

    void start() { adapter.start(config); }
    bool isIdentified() const { return config->status == RadioAdapterConfig::Identified; }

    QByteArrayList frames() const
    {
        QByteArrayList result;
        for (const auto &response : received)
            result.append(response->data());
        return result;
    }

    const QSharedPointer<RadioAdapterConfig> config = QSharedPointer<RadioAdapterConfig>::create();
    QList<QSharedPointer<IcomCommandResponse>> received;
    QStringList sent;
    SerialAdapter adapter;
    QSignalSpy stopped{&adapter, &SerialAdapter::adapterStopped};
};

/// A plugged radio.
class Radio : public SimulatedRadio
{
public:
    explicit Radio(const RadioSettings &settings = RadioSettings()) : SimulatedRadio(settings)
    {
        if (!plugIn())
            qFatal("%s", qPrintable(errorString()));
    }
};

/// A radio that is only listened to, at its own speed.
class ListeningRig : public Rig
{
public:
    explicit ListeningRig(const Radio &radio) : Rig(radio.portName())
    {
        config->autobaud = config->tx_enabled = false;
        config->baudrate = radio.settings().baud;
        start();
    }
};

constexpr int identificationTime = 15000; // ms; long enough for a busy machine

} // namespace

class TestAdapter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void init() { m_file.setKey(QStringLiteral("forward_invalid_data"), QStringLiteral("false")); }
    void identifies();
    void walksTheBaudRates();
    void givesUp_data();
    void givesUp();
    void announces_data();
    void announces();
    void listensOnly();
    void framing_data();
    void framing();
    void dropsALineWithoutEnd();
    void framesOfAnUnknownRadio();
    void notificationsReachTheOutputs();
    void wrongAnswersAreIgnored();
    void displayTextScrollsAndIsCleared();
    void vanishedDeviceStopsOnce();
    void stopsInsideItsOwnSignals();
    void portThatCannotBeOpened();
    void sharedObjectsOutliveTheAdapter();

private:
    TestDatabase m_file;
};

void TestAdapter::identifies()
{
    RadioSettings settings;
    settings.esn = QStringLiteral("0289");
    settings.comment1 = QStringLiteral("first");
    settings.front = QStringLiteral("NG");
    Radio radio(settings);
    QElapsedTimer clock;
    QList<qint64> times;
    connect(&radio, &SimulatedRadio::lineReceived, this, [&] { times.append(clock.elapsed()); });

    LogCapture log;
    Rig rig(radio.portName());
    rig.start();
    clock.start();
    const QByteArrayList expected{"*GET,INFO,ESN", "*SET,UI,TEXT,", "*GET,INFO,COMMENT,1",
        "*GET,INFO,COMMENT,2", "*GET,INFO,DREV", "*GET,INFO,REV", "*GET,INFO,FREV",
        "*SET,UI,TEXT,Radio nommee R1 branchee sur le port " + radio.portName().toUtf8()};
    QTRY_VERIFY_WITH_TIMEOUT(radio.received().size() >= expected.size(), identificationTime);
    QCOMPARE(radio.received().mid(0, expected.size()), expected);
    QVERIFY(times.at(0) >= 450); // the first tick
    QVERIFY2(times.at(1) - times.at(0) < 250, "the command after the ESN goes out at once");
    QVERIFY2(
        times.at(2) - times.at(1) >= 400, "and the next one on the next tick, since the display is mute");
    QVERIFY2(times.at(7) - times.at(2) < 250, "every further answer brings the next command at once");

    // The frame that identifies the radio comes twice: as the answer, and as a frame of its own.
    QCOMPARE(rig.frames(),
        (QByteArrayList{"*NTF,INFO,ESN,0289", "*NTF,INFO,ESN,0289", "*NTF,INFO,COMMENT,first",
            "*NTF,INFO,COMMENT,", "*NTF,INFO,DREV,1.02,DSP", "*NTF,INFO,REV,1.0,$AB12,SIM",
            "*NTF,INFO,FREV,NG"}));
    QCOMPARE(rig.received.at(0)->responseType(), 3);
    QCOMPARE(rig.received.at(1)->responseType(), 99);
    QVERIFY(rig.received.at(0)->timestamp().isValid());
    QCOMPARE(log.count(QStringLiteral("NON Valid Comment :  \"*NTF,INFO,ESN,0289\"")), 1);
    QCOMPARE(log.count(QStringLiteral("let store the radio ESN :  \"0289\"")), 1);
    const Rows row = m_file.run(
        QStringLiteral("SELECT status, esn FROM radio_adapters WHERE ids = %1").arg(rig.config->ids));
    QCOMPARE(row.first(), (QVector<QVariant>{1, QStringLiteral("0289")}));
    QVERIFY(rig.stopped.isEmpty());
}

void TestAdapter::walksTheBaudRates()
{
    RadioSettings settings;
    settings.baud = 4800;
    Radio radio(settings);
    Rig rig(radio.portName());
    rig.start();
    QList<int> speeds;
    QTRY_VERIFY_WITH_TIMEOUT(
        [&] {
            const int speed = radio.lineSpeed();
            if (speeds.isEmpty() || speeds.last() != speed)
                speeds.append(speed);
            return rig.isIdentified();
        }(),
        identificationTime);
    QCOMPARE(speeds.mid(speeds.indexOf(19200)), (QList<int>{19200, 9600, 4800}));
    QCOMPARE(radio.received().mid(0, 2), (QByteArrayList{"*GET,INFO,ESN", "*SET,UI,TEXT,"}));
}

void TestAdapter::givesUp_data()
{
    QTest::addColumn<bool>("autobaud");
    QTest::addColumn<int>("queries");
    QTest::newRow("after every speed") << true << 6;
    QTest::newRow("after the fixed speed") << false << 1;
}

void TestAdapter::givesUp()
{
    QFETCH(bool, autobaud);
    QFETCH(int, queries);
    m_file.setKey(QStringLiteral("forward_invalid_data"), QStringLiteral("true"));
    RadioSettings settings;
    settings.answers = false;
    Radio radio(settings);
    Rig rig(radio.portName());
    rig.config->autobaud = autobaud;
    rig.config->baudrate = 4800;
    QElapsedTimer clock;
    clock.start();
    rig.start();
    QCOMPARE(radio.lineSpeed(), autobaud ? 19200 : 4800);
    QTRY_COMPARE_WITH_TIMEOUT(rig.stopped.size(), 1, identificationTime);
    QVERIFY(clock.elapsed() >= qint64(queries) * 900);
    QCOMPARE(rig.sent.count(QStringLiteral("*GET,INFO,ESN")), queries);
    QCOMPARE(int(rig.config->status), 2);
    QCOMPARE(
        m_file.value(QStringLiteral("SELECT status FROM radio_adapters WHERE ids = %1").arg(rig.config->ids))
            .toInt(),
        2);
    rig.adapter.stop();
    QCOMPARE(rig.stopped.size(), 1);
}

void TestAdapter::announces_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("first"); // first command that is announced
    QTest::newRow("false") << "false"
                           << "*GET,INFO,COMMENT,1"; // not before the radio is identified
    QTest::newRow("true") << "true"
                          << "*GET,INFO,ESN";
    QTest::newRow("other case") << "True" << QString();
}

void TestAdapter::announces()
{
    QFETCH(QString, value);
    QFETCH(QString, first);
    m_file.setKey(QStringLiteral("forward_invalid_data"), value);
    Radio radio;
    Rig rig(radio.portName());
    rig.start();
    QTRY_VERIFY_WITH_TIMEOUT(radio.received().size() >= 4, identificationTime);
    QCOMPARE(rig.sent.value(0), first);
}

void TestAdapter::listensOnly()
{
    Radio radio;
    ListeningRig rig(radio);
    rig.adapter.enqueueCommand(
        QSharedPointer<DisplayTextCommand>::create(nullptr, QStringLiteral("HI"), 5000));
    QTest::qWait(700); // longer than a tick
    QVERIFY(radio.hear("*NTF,INFO,ESN,1"));
    QVERIFY(radio.hear("*NTF,DPMR,RXVCALL,1,2,3,4,5"));
    QTRY_COMPARE(rig.received.size(), 2);
    for (const auto &response : qAsConst(rig.received))
        QCOMPARE(response->responseType(), 99);
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
    row("two in one read", {"\x02one\x03\x02two\x03"}, {"one", "two"});
    row("unfinished frame stays", {"\x02one\x03\x02tw", "o\x03"}, {"one", "two"});
    row("byte by byte", {"\x02", "o", "ne", "\x03"}, {"one"});
    row("junk behind", {"\x02one\x03junk\x02two\x03"}, {"onejunk", "two"});
    row("junk before", {"junk\x03\x02one\x03"}, {"junk", "one"});
    row("without a start", {"one\x03"}, {"one"});
    row("start lost", {"\x02on\x02two\x03"}, {"two"});
    row("several ends", {"\x02one\x03\x03tail\x03"}, {"onetail"});
    row("empty", {"\x02\x03\x03"}, {""});
    row("NUL and high bytes", {QByteArray("\x02\0\xff\x03", 4)}, {QByteArray("\0\xff", 2)});
    row("long", {'\x02' + QByteArray(60000, 'x') + '\x03'}, {QByteArray(60000, 'x')});
}

void TestAdapter::framing()
{
    QFETCH(QByteArrayList, reads);
    QFETCH(QByteArrayList, frames);
    Radio radio;
    ListeningRig rig(radio);
    for (const QByteArray &bytes : qAsConst(reads)) {
        QVERIFY(QTest::qWaitFor([&] { return radio.send(bytes); }));
        QTest::qWait(20); // let them arrive on their own
    }
    QTRY_COMPARE(rig.frames(), frames);
}

void TestAdapter::dropsALineWithoutEnd()
{
    Radio radio;
    ListeningRig rig(radio);
    LogCapture log;
    QVERIFY(QTest::qWaitFor([&] { return radio.send('\x02' + QByteArray(70000, 'x')); }));
    QTRY_COMPARE(log.texts(QtWarningMsg).size(), 1);
    QVERIFY(log.texts().first().contains(radio.portName()));
    QTest::qWait(200);
    QVERIFY(radio.send("\x02one\x03"));
    QTRY_COMPARE(rig.frames(), QByteArrayList{"one"});
    QCOMPARE(log.texts().size(), 1);
}

void TestAdapter::framesOfAnUnknownRadio()
{
    RadioSettings settings;
    settings.answers = false;
    Radio radio(settings);
    Rig rig(radio.portName());
    rig.start();
    LogCapture log;
    QVERIFY(radio.hear("*NTF,INFO,COMMENT,early"));
    QTRY_COMPARE(log.count(QStringLiteral("NON Valid ESN :  \"*NTF,INFO,COMMENT,early\"")), 1);
    QVERIFY(rig.received.isEmpty());
    m_file.setKey(QStringLiteral("forward_invalid_data"), QStringLiteral("true"));
    QVERIFY(radio.hear("*NTF,DPMR,RXVCALL,1,2,3,4,5"));
    QTRY_COMPARE(rig.received.size(), 1);
    QCOMPARE(rig.received.first()->responseType(), 99);
    QVERIFY(!rig.isIdentified());
}

void TestAdapter::notificationsReachTheOutputs()
{
    Radio radio;
    Rig rig(radio.portName());
    rig.start();
    QTRY_VERIFY_WITH_TIMEOUT(radio.received().size() >= 8, identificationTime);
    rig.received.clear();
    for (const char *line :
        {"*NTF,DPMR,RXVCALL,1,2,3,4,5", "*NTF,DPMR,RXMSG,malformed", "*NTF,CTRL,BATVST,L1\""})
        QVERIFY(radio.hear(line));
    QTRY_COMPARE(rig.received.size(), 2);
    QCOMPARE(rig.received.first()->responseType(), 6);
    QCOMPARE(rig.received.last()->responseType(), 10);
    QCOMPARE(rig.received.first()->parent(), &rig.adapter);
}

void TestAdapter::wrongAnswersAreIgnored()
{
    Radio radio;
    Rig rig(radio.portName());
    rig.start(); // the head waits for the first tick
    LogCapture log;
    const auto call = parseNotification(&rig.adapter, "*NTF,DPMR,RXVCALL,1,2,3,4,5");
    QMetaObject::invokeMethod(
        &rig.adapter, "handleCommandResponse", Q_ARG(QSharedPointer<IcomCommandResponse>, call));
    QCOMPARE(rig.received.size(), 1);
    QCOMPARE(log.texts(QtWarningMsg),
        QStringList(QStringLiteral("Got a response 6 while 3 was expected. Ignored.")));
}

void TestAdapter::displayTextScrollsAndIsCleared()
{
    Radio radio;
    Rig rig(radio.portName());
    rig.start();
    QTRY_VERIFY_WITH_TIMEOUT(rig.isIdentified(), identificationTime);
    QStringList shown;
    connect(&radio, &SimulatedRadio::displayChanged, this, [&](const QString &text) { shown.append(text); });
    rig.config->port = QStringLiteral("P");
    QTRY_COMPARE_WITH_TIMEOUT(shown.size(), 8, 12000);
    QString text = QStringLiteral("Radio nommee R1 branchee sur le port P");
    for (const QString &step : qAsConst(shown).mid(0, 7)) {
        QCOMPARE(step, text);
        text.remove(0, 5);
    }
    QCOMPARE(shown.last(), QString());
}

void TestAdapter::vanishedDeviceStopsOnce()
{
    Radio radio;
    Rig rig(radio.portName());
    rig.start();
    QTRY_VERIFY_WITH_TIMEOUT(rig.isIdentified(), identificationTime);
    LogCapture log;
    QVERIFY(radio.send("\x02half a fra"));
    radio.unplug();
    QTRY_COMPARE(rig.stopped.size(), 1);
    QTest::qWait(100);
    QCOMPARE(rig.stopped.size(), 1);
    QCOMPARE(int(rig.config->status), 2);
    QCOMPARE(log.texts(QtInfoMsg).size(), 1);
    QVERIFY(log.texts(QtWarningMsg).isEmpty());
}

void TestAdapter::stopsInsideItsOwnSignals()
{
    m_file.setKey(QStringLiteral("forward_invalid_data"), QStringLiteral("true"));
    Radio radio;
    Rig inSent(radio.portName());
    connect(&inSent.adapter, &SerialAdapter::dataSent, &inSent.adapter, &SerialAdapter::stop);
    inSent.start();
    QTRY_COMPARE(inSent.stopped.size(), 1);
    QVERIFY(radio.received().isEmpty());

    ListeningRig inReceived(radio);
    connect(&inReceived.adapter, &SerialAdapter::dataReceived, &inReceived.adapter, &SerialAdapter::stop);
    QVERIFY(QTest::qWaitFor([&] { return radio.send("\x02one\x03\x02two\x03"); }));
    QTRY_COMPARE(inReceived.stopped.size(), 1);
    QCOMPARE(inReceived.frames(), QByteArrayList{"one"});
}

void TestAdapter::portThatCannotBeOpened()
{
    LogCapture log;
    Rig rig(QStringLiteral("pts/none"));
    rig.start();
    QCOMPARE(rig.stopped.size(), 1);
    QCOMPARE(int(rig.config->status), 2);
    QCOMPARE(log.texts(QtInfoMsg),
        QStringList(QStringLiteral("Error ( \"pts/none\" ) :  \"No such file or directory\"")));
}

void TestAdapter::sharedObjectsOutliveTheAdapter()
{
    Radio radio;
    QSharedPointer<IcomCommand> command;
    QSharedPointer<IcomCommandResponse> response;
    {
        Rig rig(radio.portName());
        connect(&rig.adapter, &SerialAdapter::dataSent, this,
            [&](const QSharedPointer<IcomCommand> &sent) { command = sent; });
        rig.start();
        QTRY_VERIFY_WITH_TIMEOUT(rig.isIdentified() && !command.isNull(), identificationTime);
        QVERIFY(radio.hear("*NTF,DPMR,RXVCALL,1,2,3,4,5"));
        QTRY_COMPARE(rig.received.last()->responseType(), 6);
        response = rig.received.last();
        QVERIFY(command->parent() && response->parent());
    }
    QVERIFY(!command->parent() && !response->parent());
    QVERIFY(!command->commandText().isEmpty());
    QCOMPARE(response->data(), QByteArray("*NTF,DPMR,RXVCALL,1,2,3,4,5"));
    response->process();
}

QTEST_GUILESS_MAIN(TestAdapter)
#include "tst_adapter.moc"
