#include "protocol/ActionCommands.h"
#include "serial/SerialDiscoverer.h"
#include "support/LogCapture.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

#include <QLocalSocket>

#include <sys/socket.h>

namespace {

/// A discoverer that enumerates what it is told to and scans when it is told to.
class Discoverer : public SerialDiscoverer
{
public:
    void scan(const QStringList &ports = {})
    {
        m_ports = ports;
        QMetaObject::invokeMethod(this, "discover");
    }

    mutable QList<qint64> times; ///< of the scans, in ms
    std::function<void()> whileListing; ///< what happens when the ports are enumerated

protected:
    QStringList availablePortNames() const override
    {
        times.append(QDateTime::currentMSecsSinceEpoch());
        if (whileListing)
            whileListing();
        return m_ports;
    }

private:
    QStringList m_ports;
};

int openFiles()
{
    return QDir("/proc/self/fd"_s).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
}

} // namespace

class TestDiscoverer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        ConfigDatabase::getInstance(m_file.path());
        cleanup(); // of the rows that a new file has
    }
    void cleanup();
    void scansForEveryOutput();
    void outputsThatNeverWaitComeFirst();
    void newPortsAreRegistered();
    void theRowThatDecides();
    void lockedFileIsWaitedFor();
    void replugging();

private:
    TestDatabase m_file;
    QScopedPointer<Discoverer> m_discoverer;
};

void TestDiscoverer::cleanup()
{
    QTest::qWait(50); // the adapters end with their radios
    m_discoverer.reset(new Discoverer);
    for (const QString &table : {"radio_adapters"_s, "data_forwarder"_s, "port_blacklist"_s})
        m_file.run("DELETE FROM "_s + table);
}

void TestDiscoverer::scansForEveryOutput()
{
    PluggedRadio radio;
    m_file.addRadio(radio.portName());
    for (const QString &file : {"one"_s, "two"_s})
        m_file.addForwarder("file"_s, m_file.file(file));
    const qint64 start = QDateTime::currentMSecsSinceEpoch();
    m_discoverer->initForwarders();
    QTRY_COMPARE_WITH_TIMEOUT(m_discoverer->times.size(), 2, 15000);
    const qint64 first = m_discoverer->times.at(0) - start;
    const qint64 period = m_discoverer->times.at(1) - m_discoverer->times.at(0);
    QVERIFY(first >= 4700 && first < 7500 && period >= 4700 && period < 7500);
    for (const QString &file : {"one"_s, "two"_s})
        QTRY_VERIFY(m_file.readFile(file).contains("WRITE: \x02*GET,INFO,COMMENT,1\x03\n"));
    m_discoverer->broadcastCommand(QSharedPointer<DisplayTextCommand>::create(nullptr, "NOW"_s, 5000));
    m_discoverer->broadcastCommand(QSharedPointer<DisplayTextCommand>::create(nullptr, "LATER"_s, 5000), 10);
    QTRY_VERIFY_WITH_TIMEOUT(radio.shown.contains("NOW"_s) && radio.shown.contains("LATER"_s), 10000);
}

void TestDiscoverer::outputsThatNeverWaitComeFirst()
{
    const PluggedRadio radio;
    m_file.addRadio(radio.portName());
    m_file.addForwarder("FILE"_s, "/dev/full"_s);
    m_file.addForwarder("STREAM"_s, m_file.file("stream"_s));
    m_discoverer->initForwarders();
    QLocalSocket client;
    client.connectToServer(m_file.file("stream"_s));
    QTRY_VERIFY(client.canReadLine());

    static QByteArray heard; // by the client, when the file output complains
    static int descriptor;
    descriptor = int(client.socketDescriptor());
    const auto handler =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) {
            if (!text.startsWith("Cannot write"_s))
                return;
            char bytes[4096];
            heard.append(bytes, int(qMax<ssize_t>(0, ::recv(descriptor, bytes, sizeof bytes, MSG_DONTWAIT))));
        });
    m_discoverer->scan({radio.portName()});
    const bool hasHeard = QTest::qWaitFor([] { return heard.contains("\"record\":\"frame\""); });
    qInstallMessageHandler(handler);
    QVERIFY(hasHeard);
}

void TestDiscoverer::newPortsAreRegistered()
{
    const PluggedRadio radio;
    for (const QString &noDevice : {"pts/none"_s, QString(), m_file.path()})
        m_file.addRadio(noDevice);
    LogCapture log;
    for (int scans = 1; scans <= 3; ++scans) { // a port that cannot be opened is tried again, once a scan
        m_discoverer->scan({"ttyUSB999"_s, "ttyUSB999"_s, radio.portName()});
        QCOMPARE(log.count("Error ( \"ttyUSB999\" ) :  \"No such file or directory\""_s), scans);
    }
    QCOMPARE(log.text().count(u'\n'), 2);
    QCOMPARE(m_file.run("SELECT port, name, method, autobaud, tx_enabled, enabled, discovered, status"
                        " FROM radio_adapters WHERE method <> 'STATIC'"_s),
        "ttyUSB999|999|UART|1|1|1|1|2\n%1|%1|UART|1|1|1|1|0"_s.arg(radio.portName()));
    QCOMPARE(radio.lineSpeed(), 19200); // not the speed of a new pseudo-terminal
}

void TestDiscoverer::theRowThatDecides()
{
    struct Case
    {
        QString rows; ///< %1 is the port that is enumerated; %2 and %3 lead to it
        QString blocked;
        int speed; ///< of the row that decides; 0: the device is left alone
        PluggedRadio radio{};
    };
    const QString listed = "('UART', '%1', 1, 1200)"_s;
    const QString link = "('STATIC', '%2', 1, 2400)"_s;
    const QString path = "('STATIC', '%3', 1, 4800)"_s;
    const QString linkOff = "('STATIC', '%2', 0, 2400)"_s;
    const QString listedOff = "('UART', '%1', 0, 9600)"_s;
    Case cases[] = {{listedOff, {}, 0}, {listedOff + u',' + listed, {}, 1200},
        {"('STATIC', '%1', 0, 9600),"_s + listed, {}, 1200}, // the last of one name, whatever its method
        {listed + u',' + link, {}, 2400}, {link + u',' + listed, {}, 2400},
        {link, {}, 2400}, // no row is made for the port's own name
        {linkOff + u',' + listed, {}, 0}, {path + u',' + link, {}, 2400}, {path + u',' + linkOff, {}, 0},
        {linkOff + u',' + path, {}, 4800}, {"('UART', '%2', 1, 9600),"_s + listed, {}, 1200},
        {listed, "%1"_s, 0}, {listed, "%2"_s, 1200}, {path + u',' + listed, "%3"_s, 0}, {path, "%2"_s, 0}};
    QStringList ports;
    int rows = 0;
    for (Case &each : cases) {
        ports.append(each.radio.portName());
        QVERIFY(each.radio.setLink(m_file.file("link%1"_s.arg(ports.size()))));
        for (QString *text : {&each.rows, &each.blocked})
            text->replace("%1"_s, ports.last())
                .replace("%2"_s, each.radio.link())
                .replace("%3"_s, each.radio.slavePath());
        m_file.run("INSERT INTO radio_adapters (method, port, enabled, baudrate) VALUES "_s + each.rows);
        m_file.run("INSERT INTO port_blacklist (port) VALUES ('none'), (?)"_s, {each.blocked});
        rows += each.rows.count(u'(');
    }
    const int unopened = cases[0].radio.lineSpeed();
    m_discoverer->scan(ports);
    for (const Case &each : cases) {
        QVERIFY2(each.radio.lineSpeed() == (each.speed ? each.speed : unopened),
            qPrintable(each.rows + " blocked: "_s + each.blocked));
    }
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s).toInt(), rows);

    m_file.run("DELETE FROM port_blacklist"_s);
    m_file.run("UPDATE radio_adapters SET enabled = 1"_s);
    m_discoverer->scan(ports); // what was left alone is opened
    for (const Case &each : cases)
        QVERIFY(each.radio.lineSpeed() != unopened);
    const int files = openFiles();
    for (const Case &each : cases)
        m_file.addRadio(each.radio.slavePath());
    m_discoverer->scan(ports); // and nothing is opened twice, under any name
    QCOMPARE(openFiles(), files);
}

void TestDiscoverer::lockedFileIsWaitedFor()
{
    const PluggedRadio radio;
    const int unopened = radio.lineSpeed();
    m_file.addForwarder("file"_s, m_file.file("late"_s));
    m_file.addRadio(radio.portName(), {}, false, "UART"_s);
    std::optional<OtherProgram> lock(std::in_place, m_file);
    LogCapture log;
    m_discoverer->initForwarders();
    m_discoverer->scan({radio.portName()});
    QVERIFY(m_discoverer->times.isEmpty());
    lock.reset();
    m_discoverer->whileListing = [&] { lock.emplace(m_file); };
    m_discoverer->scan({radio.portName(), "ttyUSB999"_s}); // the second one is not even looked at
    lock.reset();
    QCOMPARE(radio.lineSpeed(), unopened);
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s), "1"_s);
    QCOMPARE(log.count("The configuration file cannot be read"_s), 2);

    m_discoverer->whileListing = {};
    m_file.run("UPDATE radio_adapters SET enabled = 1"_s);
    m_discoverer->scan({radio.portName()});
    QTRY_VERIFY(m_file.readFile("late"_s).contains("READ:"));
}

void TestDiscoverer::replugging()
{
    PluggedRadio radio;
    QVERIFY(radio.setLink(m_file.file("replugged"_s)));
    m_file.addRadio(radio.link());
    LogCapture log;
    int filesAfterFirst = 0;
    const QString status = "SELECT status FROM radio_adapters"_s;
    for (int round = 0; round < 4; ++round) {
        m_discoverer->scan();
        QTRY_COMPARE_WITH_TIMEOUT(m_file.run(status), "1"_s, 10000);
        QVERIFY(radio.send("\x02*NTF,DPMR,RXVC")); // pulled out in the middle of a frame
        radio.unplug();
        QTRY_COMPARE(m_file.run(status), "2"_s);
        if (round == 0)
            filesAfterFirst = openFiles();
        QVERIFY(radio.plugIn());
    }
    QCOMPARE(log.count("Port \"%1\" is gone :"_s.arg(radio.link())), 4); // once each time
    radio.unplug();
    QTRY_COMPARE(openFiles(), filesAfterFirst);
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s), "1"_s);
}

QTEST_GUILESS_MAIN(TestDiscoverer)
#include "tst_discoverer.moc"
