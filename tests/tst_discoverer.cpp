#include "protocol/ActionCommands.h"
#include "serial/SerialDiscoverer.h"
#include "support/LogCapture.h"
#include "support/PluggedRadio.h"
#include "support/TestDatabase.h"

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
    /// Begins to scan by itself.
    void run(const QStringList &ports)
    {
        m_ports = ports;
        m_clock.start();
        initForwarders();
    }
    /// When it has scanned, in ms since run().
    QList<qint64> times() const { return m_times; }

protected:
    QStringList availablePortNames() const override
    {
        m_times.append(m_clock.elapsed());
        return m_ports;
    }

private:
    QStringList m_ports;
    QElapsedTimer m_clock;
    mutable QList<qint64> m_times;
};

/// Whether the discoverer drives this radio's port: it has made it a 19200 bit/s line, which is not the speed
/// of a new pseudo-terminal.
bool isOpen(const SimulatedRadio &radio)
{
    return radio.lineSpeed() == 19200;
}

int openFiles()
{
    return QDir("/proc/self/fd"_s).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
}

} // namespace

class TestDiscoverer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void init();
    void cleanup();
    void scansForEveryOutput();
    void newPortsAreRegistered();
    void theRowThatDecides_data();
    void theRowThatDecides();
    void rowsWithoutADevice();
    void aDeviceIsDrivenOnce();
    void replugging();

private:
    TestDatabase m_file;
    QScopedPointer<Discoverer> m_discoverer;
};

void TestDiscoverer::init()
{
    m_discoverer.reset(new Discoverer);
    for (const QString &table : {"radio_adapters"_s, "data_forwarder"_s, "port_blacklist"_s})
        m_file.run("DELETE FROM "_s + table);
}

void TestDiscoverer::cleanup()
{
    QTest::qWait(50); // the adapters end with their radios
    m_discoverer.reset();
}

void TestDiscoverer::scansForEveryOutput()
{
    PluggedRadio radio;
    const auto outputs = {"one"_s, "two"_s, "off"_s};
    for (const QString &file : outputs)
        m_file.addForwarder("file"_s, m_file.file(file));
    m_file.run("UPDATE data_forwarder SET enabled = 0 WHERE ids = "_s
        + QString::number(m_file.addForwarder("FOO"_s) - 1));
    m_discoverer->run({radio.portName()});
    QTRY_COMPARE_WITH_TIMEOUT(m_discoverer->times().size(), 2, 15000);
    const qint64 first = m_discoverer->times().at(0);
    const qint64 period = m_discoverer->times().at(1) - first;
    QVERIFY2(first >= 4700 && first < 7500, qPrintable(QString::number(first)));
    QVERIFY2(period >= 4700 && period < 7500, qPrintable(QString::number(period)));
    for (const QString &file : {"one"_s, "two"_s}) {
        QTRY_VERIFY(m_file.readFile(file).contains("READ: \x02*NTF,INFO,ESN,28940001\x03\n"));
        QTRY_VERIFY(m_file.readFile(file).contains("WRITE: \x02*GET,INFO,COMMENT,1\x03\n"));
    }
    QCOMPARE(m_file.readFile("off"_s), QByteArray());
    m_discoverer->broadcastCommand(QSharedPointer<DisplayTextCommand>::create(nullptr, "ALL"_s, 5000));
    QTRY_VERIFY_WITH_TIMEOUT(radio.shown.contains("ALL"_s), 10000);
}

void TestDiscoverer::newPortsAreRegistered()
{
    const PluggedRadio radio;
    LogCapture log;
    for (int scans = 1; scans <= 3; ++scans) { // a port that cannot be opened is tried again, once a scan
        m_discoverer->scan({"ttyUSB999"_s, "ttyUSB999"_s, radio.portName()});
        QCOMPARE(log.count("Error ( \"ttyUSB999\" ) :  \"No such file or directory\""_s), scans);
    }
    QCOMPARE(m_file.run("SELECT port, name, method, autobaud, tx_enabled, enabled, discovered, status"
                        " FROM radio_adapters"_s),
        "ttyUSB999|999|UART|1|1|1|1|2\n%1|%1|UART|1|1|1|1|0"_s.arg(radio.portName()));
    QVERIFY(isOpen(radio));
}

void TestDiscoverer::theRowThatDecides_data()
{
    QTest::addColumn<QString>("rows"); // %1 is the port that is enumerated; %2 and %3 lead to it
    QTest::addColumn<QString>("blocked");
    QTest::addColumn<int>("speed"); // of the row that decides; 0: the device is left alone
    const auto row = [](const char *name, const QString &rows, const QString &blocked, int speed) {
        QTest::newRow(name) << rows << blocked << speed;
    };
    const QString listed = "('UART', '%1', 1, 1200)"_s;
    const QString link = "('STATIC', '%2', 1, 2400)"_s;
    const QString path = "('STATIC', '%3', 1, 4800)"_s;
    const QString linkOff = "('STATIC', '%2', 0, 2400)"_s;
    row("disabled", "('UART', '%1', 0, 1200)"_s, {}, 0);
    row("same name, last", "('UART', '%1', 0, 9600),"_s + listed, {}, 1200);
    row("same name, last, any method", "('STATIC', '%1', 0, 9600),"_s + listed, {}, 1200);
    row("STATIC after listed", listed + u',' + link, {}, 2400);
    row("STATIC before listed", link + u',' + listed, {}, 2400);
    row("STATIC alone", link, {}, 2400); // no row is made for the port's own name
    row("STATIC disabled", linkOff + u',' + listed, {}, 0);
    row("last STATIC", path + u',' + link, {}, 2400);
    row("last STATIC disabled", path + u',' + linkOff, {}, 0);
    row("first STATIC disabled", linkOff + u',' + path, {}, 4800);
    row("other method", "('UART', '%2', 1, 9600),"_s + listed, {}, 1200);
    row("blocked", listed, "%1"_s, 0);
    row("blocked by another name", listed, "%2"_s, 1200);
    row("STATIC blocked", path + u',' + listed, "%3"_s, 0);
    row("STATIC blocked by another name", path, "%2"_s, 0);
}

void TestDiscoverer::theRowThatDecides()
{
    QFETCH(QString, rows);
    QFETCH(QString, blocked);
    QFETCH(int, speed);
    PluggedRadio radio;
    QVERIFY(radio.setLink(m_file.file("link"_s)));
    const auto named = [&](const QString &text) {
        return QString(text)
            .replace("%1"_s, radio.portName())
            .replace("%2"_s, radio.link())
            .replace("%3"_s, radio.slavePath());
    };
    m_file.run("INSERT INTO radio_adapters (method, port, enabled, baudrate) VALUES "_s + named(rows));
    m_file.run("INSERT INTO port_blacklist (port) VALUES ('none'), (?)"_s, {named(blocked)});
    const int unopened = radio.lineSpeed();
    for (int scans = 0; scans < 2; ++scans) {
        m_discoverer->scan({radio.portName()});
        QCOMPARE(radio.lineSpeed(), speed ? speed : unopened);
    }
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s).toInt(), rows.count(u'('));

    m_file.run("DELETE FROM port_blacklist"_s);
    m_file.run("UPDATE radio_adapters SET enabled = 1"_s);
    m_discoverer->scan({radio.portName()}); // what was left alone is opened
    QVERIFY(radio.lineSpeed() != unopened);
}

void TestDiscoverer::rowsWithoutADevice()
{
    for (const QString &noDevice : {"pts/none"_s, QString(), m_file.path()})
        m_file.addRadio(noDevice);
    LogCapture log;
    m_discoverer->scan();
    QCOMPARE(log.text(), QString());
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s), "3"_s);
}

void TestDiscoverer::aDeviceIsDrivenOnce()
{
    PluggedRadio radio;
    QVERIFY(radio.setLink(m_file.file("link"_s)));
    m_file.addRadio(radio.portName(), "name"_s);
    m_file.addRadio(radio.link(), "link"_s);
    for (int scans = 0; scans < 2; ++scans)
        m_discoverer->scan();
    QVERIFY(m_file.waitFor("SELECT name FROM radio_adapters WHERE status = 1"_s, "link"_s));
    QTest::qWait(100);
    QCOMPARE(radio.received().count("*GET,INFO,ESN"), 1);
    m_discoverer->broadcastCommand(QSharedPointer<DisplayTextCommand>::create(nullptr, "LATER"_s, 5000), 10);
    QTRY_VERIFY(radio.shown.contains("LATER"_s));
}

void TestDiscoverer::replugging()
{
    PluggedRadio radio;
    QVERIFY(radio.setLink(m_file.file("replugged"_s)));
    m_file.addRadio(radio.link());
    LogCapture log;
    int filesAfterFirst = 0;
    const QString status = "SELECT status FROM radio_adapters"_s;
    for (int round = 0; round < 20; ++round) {
        m_discoverer->scan();
        QVERIFY2(m_file.waitFor(status, "1"_s), qPrintable(QString::number(round)));
        QVERIFY(radio.send("\x02*NTF,DPMR,RXVC")); // pulled out in the middle of a frame
        radio.unplug();
        QVERIFY(m_file.waitFor(status, "2"_s));
        if (round == 0)
            filesAfterFirst = openFiles();
        QVERIFY(radio.plugIn());
    }
    QCOMPARE(log.count("Port \"%1\" is gone :"_s.arg(radio.link())), 20); // once each time
    radio.unplug();
    QTRY_COMPARE(openFiles(), filesAfterFirst);
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s), "1"_s);
}

QTEST_GUILESS_MAIN(TestDiscoverer)
#include "tst_discoverer.moc"
