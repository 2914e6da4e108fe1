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

protected:
    QStringList availablePortNames() const override { return m_ports; }

private:
    QStringList m_ports;
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
    void cleanup();
    void newPortsAreRegistered();
    void rowsAndBlacklistDecide();
    void staticRows();
    void aDeviceIsDrivenOnce();
    void replugging();

private:
    TestDatabase m_file;
    QScopedPointer<Discoverer> m_discoverer{new Discoverer};
};

void TestDiscoverer::cleanup()
{
    QTest::qWait(50); // the adapters end with their radios
    m_discoverer.reset(new Discoverer);
    for (const QString &table : {"radio_adapters"_s, "data_forwarder"_s, "port_blacklist"_s})
        m_file.run("DELETE FROM "_s + table);
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

void TestDiscoverer::rowsAndBlacklistDecide()
{
    const PluggedRadio disabled;
    const PluggedRadio twice;
    const PluggedRadio blocked;
    m_file.addRadio(disabled.portName(), {}, false, "UART"_s);
    m_file.addRadio(twice.portName(), {}, false, "UART"_s);
    m_file.addRadio(twice.portName(), {}, true, "UART"_s); // the last row decides
    m_file.addRadio(blocked.portName());
    m_file.addRadio(blocked.slavePath()); // another name of the same device
    m_file.run("INSERT INTO port_blacklist (port) VALUES (?)"_s, {blocked.portName()});
    const QStringList ports{disabled.portName(), twice.portName(), blocked.portName()};
    m_discoverer->scan(ports);
    QVERIFY(isOpen(twice) && !isOpen(disabled) && !isOpen(blocked));

    m_file.run("UPDATE radio_adapters SET enabled = 1"_s);
    m_file.run("DELETE FROM port_blacklist"_s);
    m_discoverer->scan(ports);
    QVERIFY(isOpen(disabled) && isOpen(blocked));
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s), "5"_s);
}

void TestDiscoverer::staticRows()
{
    const PluggedRadio byName;
    const PluggedRadio byPath;
    const PluggedRadio lastDisabled;
    const PluggedRadio otherMethod;
    m_file.addRadio(byName.portName());
    m_file.addRadio(byPath.slavePath());
    m_file.addRadio(lastDisabled.portName());
    m_file.addRadio(lastDisabled.portName(), {}, false);
    m_file.addRadio(otherMethod.portName(), {}, true, "UART"_s);
    for (const QString &noDevice : {"pts/none"_s, QString(), m_file.path()})
        m_file.addRadio(noDevice);
    LogCapture log;
    m_discoverer->scan();
    QVERIFY(isOpen(byName) && isOpen(byPath) && !isOpen(lastDisabled) && !isOpen(otherMethod));
    QCOMPARE(log.text(), QString());
    QCOMPARE(m_file.run("SELECT count(*) FROM radio_adapters"_s), "8"_s);
}

void TestDiscoverer::aDeviceIsDrivenOnce()
{
    PluggedRadio radio;
    QVERIFY(radio.setLink(m_file.file("link"_s)));
    m_file.addRadio(radio.portName(), "name"_s);
    m_file.addRadio(radio.link(), "link"_s);
    for (int scans = 0; scans < 2; ++scans)
        m_discoverer->scan();
    QVERIFY(m_file.waitFor("SELECT name FROM radio_adapters WHERE status = 1"_s, "name"_s));
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
