#include "config/ConfigDatabase.h"
#include "protocol/ActionCommands.h"
#include "serial/SerialDiscoverer.h"
#include "support/LogCapture.h"
#include "support/TestDatabase.h"
#include "tools/radiosim/SimulatedRadio.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {

/// A discoverer that enumerates what it is told to and scans when it is told to.
class Discoverer : public SerialDiscoverer
{
public:
    QStringList ports;
    void scan() { QMetaObject::invokeMethod(this, "discover"); }

protected:
    QStringList availablePortNames() const override { return ports; }
};

int openFiles()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

} // namespace

class TestDiscoverer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void init();
    void cleanup();
    void newPortsAreRegistered();
    void rowsDecide();
    void blacklistedPortsAreNotOpened();
    void staticRows();
    void aDeviceIsDrivenOnce();
    void portThatCannotBeOpenedIsTriedAgain();
    void outputsOfEnabledRows();
    void broadcastReachesEveryRadio();
    void replugging();

private:
    SimulatedRadio *plug(const RadioSettings &settings = RadioSettings());
    int addRow(const QString &port, bool enabled, const QString &name = QStringLiteral("R"),
        const QString &method = QStringLiteral("UART")) const;
    bool isOpen(const SimulatedRadio *radio) const;

    TestDatabase m_file;
    QList<SimulatedRadio *> m_radios;
    QScopedPointer<Discoverer> m_discoverer;
};

void TestDiscoverer::init()
{
    m_file.run(QStringLiteral("DELETE FROM radio_adapters"));
    m_file.run(QStringLiteral("DELETE FROM data_forwarder"));
    m_file.run(QStringLiteral("DELETE FROM port_blacklist"));
    m_discoverer.reset(new Discoverer);
}

void TestDiscoverer::cleanup()
{
    qDeleteAll(m_radios); // their adapters end with them
    m_radios.clear();
    QTest::qWait(50);
    m_discoverer.reset();
}

SimulatedRadio *TestDiscoverer::plug(const RadioSettings &settings)
{
    auto *radio = new SimulatedRadio(settings); // deleted by cleanup()
    if (!radio->plugIn())
        qFatal("%s", qPrintable(radio->errorString()));
    m_radios.append(radio);
    return radio;
}

int TestDiscoverer::addRow(
    const QString &port, bool enabled, const QString &name, const QString &method) const
{
    return m_file
        .run(QStringLiteral(
                 "INSERT INTO radio_adapters (method, port, name, autobaud, tx_enabled, baudrate, enabled,"
                 " discovered, status, esn) VALUES (?, ?, ?, 1, 1, 0, ?, 0, 0, '') RETURNING ids"),
            {method, port, name, enabled})
        .first()
        .first()
        .toInt();
}

bool TestDiscoverer::isOpen(const SimulatedRadio *radio) const
{
    // Whoever drives the port has made it a 19200 bit/s line; a new pseudo-terminal has another speed.
    return radio->lineSpeed() == 19200;
}

void TestDiscoverer::newPortsAreRegistered()
{
    const SimulatedRadio *radio = plug();
    Discoverer &discoverer = *m_discoverer;
    discoverer.ports = QStringList{QStringLiteral("ttyUSB3"), radio->portName()};
    discoverer.scan();
    const Rows rows = m_file.run(QStringLiteral(
        "SELECT port, name, method, autobaud, tx_enabled, enabled, discovered FROM radio_adapters"));
    const auto row = [](const QString &port, const QString &name) {
        return QVector<QVariant>{port, name, QStringLiteral("UART"), 1, 1, 1, 1};
    };
    QCOMPARE(rows.size(), 2);
    QCOMPARE(rows.at(0), row(QStringLiteral("ttyUSB3"), QStringLiteral("3")));
    QCOMPARE(rows.at(1), row(radio->portName(), radio->portName()));
    QVERIFY(isOpen(radio));
    discoverer.scan();
    QCOMPARE(m_file.value(QStringLiteral("SELECT count(*) FROM radio_adapters")).toInt(), 2);
}

void TestDiscoverer::rowsDecide()
{
    const SimulatedRadio *disabled = plug();
    const SimulatedRadio *twice = plug();
    addRow(disabled->portName(), false);
    addRow(twice->portName(), false);
    addRow(twice->portName(), true, QStringLiteral("last"));
    Discoverer &discoverer = *m_discoverer;
    discoverer.ports = QStringList{disabled->portName(), twice->portName()};
    discoverer.scan();
    QVERIFY(!isOpen(disabled));
    QVERIFY(isOpen(twice));
    m_file.run(QStringLiteral("UPDATE radio_adapters SET enabled = 1"));
    discoverer.scan();
    QVERIFY(isOpen(disabled));
    QCOMPARE(m_file.value(QStringLiteral("SELECT count(*) FROM radio_adapters")).toInt(), 3);
}

void TestDiscoverer::blacklistedPortsAreNotOpened()
{
    const SimulatedRadio *radio = plug();
    m_file.run(QStringLiteral("INSERT INTO port_blacklist (port) VALUES (?)"), {radio->portName()});
    addRow(radio->portName(), true, QString(), QStringLiteral("STATIC"));
    addRow(radio->slavePath(), true, QStringLiteral("alias"), QStringLiteral("STATIC"));
    Discoverer &discoverer = *m_discoverer;
    discoverer.ports = QStringList{radio->portName()};
    discoverer.scan();
    QVERIFY(!isOpen(radio));
    m_file.run(QStringLiteral("DELETE FROM port_blacklist"));
    discoverer.scan();
    QVERIFY(isOpen(radio));
}

void TestDiscoverer::staticRows()
{
    const SimulatedRadio *byName = plug();
    const SimulatedRadio *byPath = plug();
    const SimulatedRadio *disabled = plug();
    const SimulatedRadio *lastDisabled = plug();
    const SimulatedRadio *otherMethod = plug();
    const QString isStatic = QStringLiteral("STATIC");
    addRow(byName->portName(), true, QString(), isStatic);
    addRow(byPath->slavePath(), true, QString(), isStatic);
    addRow(disabled->portName(), false, QString(), isStatic);
    addRow(lastDisabled->portName(), true, QString(), isStatic);
    addRow(lastDisabled->portName(), false, QString(), isStatic);
    addRow(otherMethod->portName(), true, QString(), QStringLiteral("UART"));
    addRow(QStringLiteral("pts/none"), true, QString(), isStatic);
    addRow(QString(), true, QString(), isStatic);
    addRow(m_file.path(), true, QString(), isStatic);
    LogCapture log;
    Discoverer &discoverer = *m_discoverer;
    discoverer.scan();
    QVERIFY(isOpen(byName) && isOpen(byPath));
    QVERIFY(!isOpen(disabled) && !isOpen(lastDisabled) && !isOpen(otherMethod));
    QVERIFY2(log.texts().isEmpty(), qPrintable(log.texts().join(QLatin1Char('\n'))));
    QCOMPARE(m_file.value(QStringLiteral("SELECT count(*) FROM radio_adapters")).toInt(), 9);
}

void TestDiscoverer::aDeviceIsDrivenOnce()
{
    SimulatedRadio *radio = plug();
    const QString link = m_file.folder() + QStringLiteral("/link");
    QVERIFY(radio->setLink(link));
    addRow(radio->portName(), true, QStringLiteral("name"), QStringLiteral("STATIC"));
    addRow(link, true, QStringLiteral("link"), QStringLiteral("STATIC"));
    Discoverer &discoverer = *m_discoverer;
    discoverer.scan();
    discoverer.scan();
    QTRY_VERIFY(!radio->received().isEmpty());
    QTest::qWait(100);
    QCOMPARE(radio->received().count("*GET,INFO,ESN"), 1);
    QTRY_COMPARE(
        m_file.value(QStringLiteral("SELECT group_concat(name) FROM radio_adapters WHERE status = 1"))
            .toString(),
        QStringLiteral("name"));
}

void TestDiscoverer::portThatCannotBeOpenedIsTriedAgain()
{
    LogCapture log;
    Discoverer &discoverer = *m_discoverer;
    discoverer.ports = QStringList(QStringLiteral("pts/none"));
    discoverer.ports += discoverer.ports; // as a row that names it once more would have it
    for (int scans = 1; scans <= 3; ++scans) {
        discoverer.scan();
        QCOMPARE(log.count(QStringLiteral("Error ( \"pts/none\" ) : ")), scans);
    }
    QTest::qWait(10); // the dead adapters are deleted
}

void TestDiscoverer::outputsOfEnabledRows()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const QString host = QStringLiteral("127.0.0.1");
    m_file.addForwarder(QStringLiteral("raw"), host, server.serverPort());
    m_file.addForwarder(QStringLiteral("eraw"), host, server.serverPort());
    m_file.addForwarder(QStringLiteral("carrier pigeon"), host, server.serverPort());
    const int disabled = m_file.addForwarder(QStringLiteral("RAW"), host, server.serverPort());
    m_file.run(QStringLiteral("UPDATE data_forwarder SET enabled = 0 WHERE ids = ?"), {disabled});

    SimulatedRadio *radio = plug();
    Discoverer &discoverer = *m_discoverer;
    discoverer.initForwarders();
    QList<QTcpSocket *> clients;
    QTRY_VERIFY(
        (clients.append(server.nextPendingConnection()), clients.removeAll(nullptr), clients.size() == 2));
    addRow(radio->portName(), true, QStringLiteral("R"), QStringLiteral("STATIC"));
    QTRY_VERIFY_WITH_TIMEOUT(radio->received().size() >= 8, 15000); // the scan timer has done it
    QVERIFY(radio->hear("one"));
    for (QTcpSocket *client : qAsConst(clients))
        client->setProperty("all", QByteArray());
    const auto all = [](QTcpSocket *client) {
        client->setProperty("all", client->property("all").toByteArray() + client->readAll());
        return client->property("all").toByteArray();
    };
    QTRY_VERIFY(all(clients.at(0)).endsWith("\x02one\x03"));
    QTRY_VERIFY(all(clients.at(1)).endsWith("R|one"));
    QVERIFY(!server.hasPendingConnections());
}

void TestDiscoverer::broadcastReachesEveryRadio()
{
    const SimulatedRadio *first = plug();
    const SimulatedRadio *second = plug();
    Discoverer &discoverer = *m_discoverer;
    discoverer.ports = QStringList{first->portName(), second->portName()};
    discoverer.scan();
    QTRY_VERIFY_WITH_TIMEOUT(first->received().size() >= 8 && second->received().size() >= 8, 15000);
    discoverer.broadcastCommand(
        QSharedPointer<DisplayTextCommand>::create(nullptr, QStringLiteral("HELLO"), 5000));
    discoverer.broadcastCommand(
        QSharedPointer<DisplayTextCommand>::create(nullptr, QStringLiteral("LATER"), 5000), 10);
    for (const char *text : {"*SET,UI,TEXT,HELLO", "*SET,UI,TEXT,LATER"})
        QTRY_VERIFY(first->received().contains(text) && second->received().contains(text));
}

void TestDiscoverer::replugging()
{
    SimulatedRadio *radio = plug();
    const QString link = m_file.folder() + QStringLiteral("/replugged");
    QVERIFY(radio->setLink(link));
    addRow(link, true, QStringLiteral("R"), QStringLiteral("STATIC"));
    Discoverer &discoverer = *m_discoverer;
    int filesAfterFirst = 0;
    const QString status = QStringLiteral("SELECT status FROM radio_adapters");
    for (int round = 0; round < 20; ++round) {
        discoverer.scan();
        QVERIFY2(m_file.waitForValue(status, 1), qPrintable(QString::number(round)));
        QVERIFY(radio->send("\x02*NTF,DPMR,RXVC")); // pulled out in the middle of a frame
        radio->unplug();
        QVERIFY(m_file.waitForValue(status, 2));
        if (round == 0)
            filesAfterFirst = openFiles();
        QVERIFY(radio->plugIn());
    }
    radio->unplug();
    QTRY_COMPARE(openFiles(), filesAfterFirst);
    QCOMPARE(m_file.value(QStringLiteral("SELECT count(*) FROM radio_adapters")).toInt(), 1);
}

QTEST_GUILESS_MAIN(TestDiscoverer)
#include "tst_discoverer.moc"
