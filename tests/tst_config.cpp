#include "config/ConfigKeys.h"
#include "support/LogCapture.h"
#include "support/TestDatabase.h"

#include <csignal>
#include <sys/resource.h>

namespace {

void makeFile(const TestDatabase &file)
{
    const FreshDatabase made(file.path());
}

QString keysAndValues(const TestDatabase &file)
{
    return file.run("SELECT name || '=' || value FROM system_configuration ORDER BY ids"_s)
        .replace(u'\n', u' ');
}

QString outputs(const TestDatabase &file)
{
    return file.run("SELECT group_concat(type || target || status, ' ') FROM data_forwarder"_s);
}

QString tables(const TestDatabase &file)
{
    return file.run("SELECT group_concat(name, ' ') FROM sqlite_master WHERE type = 'table'"_s);
}

const QString allTables =
    "port_blacklist system_configuration radio_adapters data_forwarder pending_actions"_s;

/// Makes the disk full for files that would grow beyond so many bytes.
void limitFiles(rlim_t bytes)
{
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min(bytes, limit.rlim_max);
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

} // namespace

class TestConfig : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { limitFiles(RLIM_INFINITY); }
    void newFileHasSchemaAndDefaults();
    void migration();
    void adapterRows();
    void forwarderRows();
    void creationIsWholeOrNothing();
    void migrationIsWholeOrNothing();
    void contentTellsWhetherAFileIsNew();
    void damagedFileKeepsItsOutputs();
    void failedStatementsNameTheirOperation();
    void lockedFileIsWaitedFor();
};

void TestConfig::newFileHasSchemaAndDefaults()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    // SQLite keeps the text as given, less "IF NOT EXISTS" and the closing semicolon.
    QCOMPARE(file.run("SELECT sql FROM sqlite_master WHERE type = 'table'"_s),
        "CREATE TABLE port_blacklist(ids integer primary key, port text)\n"
        "CREATE TABLE system_configuration(ids integer primary key, name text, value text)\n"
        "CREATE TABLE radio_adapters(ids integer primary key, method text, port text, name text, autobaud "
        "bool, tx_enabled bool, baudrate int, enabled bool, discovered bool, status int, esn text)\n"
        "CREATE TABLE data_forwarder(ids integer primary key, type text, secret text, context test, comment "
        "text, target text, port text, enabled bool, status int)\n"
        "CREATE TABLE pending_actions(ids integer primary key, command text)"_s);
    QCOMPARE(database.getPortBlacklist(), (QStringList{"ttyS0"_s, "ttyAMA0"_s}));
    QCOMPARE(keysAndValues(file),
        "autokill_enabled=false autokill_user=undefined autokill_pwd=undefined owner_dept=undefined "
        "owner_email=undefined bdd_release=1.1 forward_invalid_data=false"_s);
    QCOMPARE(file.run("SELECT type, target, context, comment, port, enabled, status, typeof(target),"
                      " typeof(port) FROM data_forwarder"_s),
        "GCP||geoserver-topic-0|GCP Geoforwarder||1|0|text|text"_s);
    const QByteArray secret = file.run("SELECT secret FROM data_forwarder"_s).toLatin1();
    QCOMPARE(secret.size(), 3192);
    QVERIFY(QJsonDocument::fromJson(QByteArray::fromBase64(secret)).object().contains("private_key"_s));
}

void TestConfig::migration()
{
    const QStringList withoutColumns{"ALTER TABLE radio_adapters DROP COLUMN esn"_s,
        "ALTER TABLE data_forwarder DROP COLUMN secret"_s,
        "ALTER TABLE data_forwarder DROP COLUMN context"_s};
    const QStringList withoutKeys{"DROP TABLE system_configuration"_s,
        "INSERT INTO data_forwarder (type, target, status) VALUES ('GCP', 'kept', 4)"_s};
    const QString inserted =
        "OWNER_EMAIL_KEY not found - inserted.\nOWNER_DEPT_KEY not found - inserted.\n%1"
        "ESN column does not exists - inserted\nSECRET column does not exists - inserted\n"
        "CONTEXT column does not exists - inserted\n"
        "Np GCP configuration found - defaulting.\n"_s;
    const QString updated = "Update BDD schema and default conf to  :  \"1.1\""_s;
    struct Case
    {
        QString release;
        QStringList changes; ///< what makes a new file an older one
        QString keys;
        QString forwarders;
        QString logged; ///< after the line that names the release
    };
    for (const Case &each :
        {Case{"0.21.0"_s, withoutColumns, "bdd_release=1.1 owner_email=undefined owner_dept=undefined"_s,
             "GCP0"_s, inserted.arg(QString()) + updated},
            {""_s, withoutColumns, "owner_email=undefined owner_dept=undefined bdd_release=1.1"_s, "GCP0"_s,
                inserted.arg("BDD_RELEASE_KEY not found - inserted.\n"_s) + updated},
            {""_s, withoutKeys,
                "autokill_user=undefined autokill_pwd=undefined owner_dept=undefined owner_email=undefined "
                "bdd_release=1.1 forward_invalid_data=false"_s,
                "GCPkept0"_s,
                "Table system_configuration does not exists - creating a new one.\n"_s + updated},
            {"1.0"_s, {}, "bdd_release=1.1 forward_invalid_data=false"_s, "RAW0"_s,
                "FORWARD_INVALID_DATA_KEY not found - inserted.\n"_s + updated},
            {"2.0"_s, {}, "bdd_release=2.0"_s, "RAW0"_s, ""_s},
            {"1.1"_s, {}, "bdd_release=1.1"_s, "RAW0"_s, ""_s}}) {
        const TestDatabase file;
        makeFile(file);
        file.run("UPDATE data_forwarder SET type = 'RAW'"_s);
        file.run("DELETE FROM system_configuration WHERE name <> 'autokill_enabled'"_s);
        if (!each.release.isEmpty())
            file.setKey(BDD_RELEASE_KEY, each.release);
        for (const QString &change : each.changes)
            file.run(change);

        LogCapture log;
        FreshDatabase database(file.path());
        QStringList lines = log.text(QtInfoMsg).split(u'\n').filter(QRegularExpression("^(?!void )"_s));
        if (each.release != BDD_RELEASE_VALUE) {
            QCOMPARE(lines.takeFirst(),
                "Old database schema detected :  \"%1\"  - should be  \"1.1\""_s.arg(
                    each.release.isEmpty() ? UNDEFINED_VALUE : each.release));
        }
        QCOMPARE(lines.join(u'\n'), each.logged);
        QCOMPARE(keysAndValues(file), "autokill_enabled=false "_s + each.keys);
        QCOMPARE(outputs(file), each.forwarders);
        QCOMPARE(file.run("INSERT INTO radio_adapters (esn) VALUES ('0289') RETURNING esn"_s), "0289"_s);
    }
}

void TestConfig::adapterRows()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    const auto config = QSharedPointer<RadioAdapterConfig>::create();
    config->method = "UART"_s;
    config->port = "ttyUSB3"_s;
    config->name = "O'Neill; \"é\""_s;
    config->autobaud = config->tx_enabled = config->enabled = true;
    config->baudrate = 4800;
    config->status = RadioAdapterConfig::Identified;
    database.addDiscoveredAdapter(config);
    QCOMPARE(config->ids, 1);
    QCOMPARE(file.run("SELECT * FROM radio_adapters WHERE esn = ''"_s),
        "1|UART|ttyUSB3|O'Neill; \"é\"|1|1|4800|1|0|1|"_s);

    config->esn = "0123"_s;
    database.updateDiscoveredAdapter(config);
    const RadioAdapterConfig read(*database.getRadioAdapters().first());
    QCOMPARE((QStringList{read.method, read.port, read.name, read.esn}),
        (QStringList{config->method, config->port, config->name, config->esn}));
    QVERIFY(read.baudrate == 4800 && read.autobaud && read.tx_enabled && read.enabled && !read.discovered);

    for (const int stored : {-1, 0, 1, 5}) {
        file.run("UPDATE radio_adapters SET status = ?"_s, {stored});
        QCOMPARE(int(database.getRadioAdapters().first()->status), stored == 0 || stored == 1 ? stored : 2);
    }
    FreshDatabase restarted(file.path());
    QCOMPARE(file.run("SELECT status FROM radio_adapters"_s), "0"_s);
}

void TestConfig::forwarderRows()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    file.run("DELETE FROM data_forwarder"_s);
    const int id = file.addForwarder("eRaw"_s, "host"_s, 9000);
    file.run("INSERT INTO data_forwarder (type, port, enabled) VALUES ('gcp', '', 0)"_s);

    QString rows;
    for (const DataForwarderConfig &row : database.getDataForwarders())
        rows += "%1 %2 %3, "_s.arg(row.type).arg(row.port).arg(row.enabled);
    QCOMPARE(rows, "ERAW 9000 1, GCP 0 0, "_s);
    database.updateForwarderStatus(id, DataForwarderConfig::Failed);
    QCOMPARE(file.run("SELECT typeof(status), status FROM data_forwarder LIMIT 1"_s), "integer|4"_s);
    for (const int stored : {-1, 3, 9}) {
        file.run("UPDATE data_forwarder SET status = ?"_s, {stored});
        QCOMPARE(int(database.getForwarderConfiguration(id).status), stored == 3 ? 3 : 4);
    }

    LogCapture log;
    const DataForwarderConfig missing = database.getForwarderConfiguration(7);
    QVERIFY(missing.ids == -1 && !missing.enabled);
    QCOMPARE(log.count("looking for configuration for forwarder id= 7  but not found in database"_s), 1);
}

void TestConfig::creationIsWholeOrNothing()
{
    QStringList operations{"UartBlacklist"_s, "SystemConfiguration"_s, "Adapters"_s, "DataForwarder"_s,
        "PendingActions"_s, "nothing"_s};
    for (const QString &view : allTables.split(u' ') + QStringList("full_disk"_s)) {
        const TestDatabase file;
        file.run("CREATE VIEW %1 AS SELECT 1"_s.arg(view)); // where a table is to be made, but for the last
        if (view == "full_disk"_s)
            limitFiles(8192); // two pages
        LogCapture log;
        FreshDatabase database(file.path());
        QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), "undefined"_s);
        limitFiles(RLIM_INFINITY);
        QCOMPARE(tables(file), QString());
        const QString failed = "void ConfigDatabase::init%1()  : error caught :  QSqlError("_s;
        QVERIFY(log.count(failed.arg(operations.takeFirst())) > 0 || view == "full_disk"_s);
        QCOMPARE(log.count("Creating a brand new Database"_s), 1);
        QCOMPARE(log.count("fresh data"_s), 2); // that it is stored, and that it could not be
        file.run("DROP VIEW "_s + view);
        QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), "1.1"_s);
        QCOMPARE(tables(file), allTables);
    }
}

void TestConfig::migrationIsWholeOrNothing()
{
    const TestDatabase file;
    makeFile(file);
    file.run("UPDATE data_forwarder SET type = 'RAW'"_s);
    file.setKey(BDD_RELEASE_KEY, "0.21.0"_s);
    limitFiles(12288); // three pages: the release stands in the third, the outputs after it
    LogCapture log;
    FreshDatabase database(file.path());
    QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), "0.21.0"_s);
    QCOMPARE(outputs(file), "RAW0"_s);
    QCOMPARE(log.count("error caught"_s), 1); // although it stays due
    limitFiles(RLIM_INFINITY);
    QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), "1.1"_s);
    QCOMPARE(outputs(file), "GCP0"_s);
}

void TestConfig::contentTellsWhetherAFileIsNew()
{
    const TestDatabase interrupted; // the journal takes back what the file holds
    OtherProgram killed(
        interrupted, "PRAGMA cache_size = 1; BEGIN; CREATE TABLE port_blacklist AS SELECT zeroblob(100000);");
    killed.kill();
    QVERIFY(killed.waitForFinished() && QFileInfo(interrupted.path()).size() > 0);
    FreshDatabase repeated(interrupted.path());
    QCOMPARE(tables(interrupted), allTables);

    const TestDatabase foreign; // another program fills it meanwhile
    OtherProgram filling(foreign, "BEGIN IMMEDIATE;");
    filling.goOn(1, "CREATE TABLE tool(x); COMMIT;");
    FreshDatabase waiting(foreign.path());
    QVERIFY(filling.waitForFinished());
    QCOMPARE(tables(foreign), "tool system_configuration"_s); // the second one by the migration
}

void TestConfig::damagedFileKeepsItsOutputs()
{
    const TestDatabase file;
    makeFile(file);
    file.addForwarder("RAW"_s, "kept"_s);
    const int page =
        file.run("SELECT rootpage FROM sqlite_master WHERE name = 'system_configuration'"_s).toInt();
    const QByteArray whole = file.readFile("quillon.sqlite"_s);
    for (const int damage : {100, (page - 1) * 4096}) { // the list of tables, the release's table
        file.writeFile("quillon.sqlite"_s, QByteArray(whole).replace(damage, 64, QByteArray(64, '\xff')));
        LogCapture log;
        FreshDatabase database(file.path());
        QCOMPARE(log.count("Old database schema detected"_s), 0);
        QCOMPARE(log.count("checkDatabaseRelease()"_s), 1); // although it stays due
    }
    QCOMPARE(outputs(file), "GCP0 RAWkept0"_s);
}

void TestConfig::failedStatementsNameTheirOperation()
{
    const TestDatabase file;
    makeFile(file);
    file.addRadio("pts/999"_s);
    file.run("INSERT INTO pending_actions (command) VALUES ('stays')"_s);
    file.run("DELETE FROM system_configuration WHERE name = 'forward_invalid_data'"_s);
    file.setKey(BDD_RELEASE_KEY, "1.0"_s);
    for (const char *change :
        {"INSERT ON system_configuration", "UPDATE ON system_configuration", "INSERT ON radio_adapters",
            "UPDATE ON radio_adapters", "UPDATE ON data_forwarder", "DELETE ON pending_actions"})
        file.run("CREATE TRIGGER \"%1\" BEFORE %1 BEGIN SELECT RAISE(ABORT, 'no'); END"_s.arg(
            QLatin1String(change)));

    LogCapture log;
    FreshDatabase database(file.path());
    const auto config = QSharedPointer<RadioAdapterConfig>::create();
    database.addDiscoveredAdapter(config);
    QCOMPARE(config->ids, -1);
    config->ids = 1;
    database.updateDiscoveredAdapter(config);
    for (int i = 0; i < 2; ++i)
        QCOMPARE(database.getFirstPendingActions(), "STAYS"_s);
    QStringList operations;
    for (const QString &line : log.text().split(u'\n'))
        operations += line.section("  : error caught :  QSqlError("_s, 0, 0);
    QCOMPARE(operations.filter("ConfigDatabase::"_s),
        (QStringList{"void ConfigDatabase::checkDatabaseRelease()"_s,
            "void ConfigDatabase::updateSchemaVersion()"_s, "void ConfigDatabase::resetAdapters()"_s,
            "void ConfigDatabase::updateForwarderStatus(int, DataForwarderConfig::ForwarderStatus)"_s,
            "void ConfigDatabase::addDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)"_s,
            "void ConfigDatabase::updateDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)"_s,
            "QString ConfigDatabase::getFirstPendingActions()"_s,
            "QString ConfigDatabase::getFirstPendingActions()"_s}));
}

void TestConfig::lockedFileIsWaitedFor()
{
    for (const int seconds : {1, 7}) { // the driver waits for less than the second
        const TestDatabase file;
        makeFile(file);
        file.addForwarder("RAW"_s, "kept"_s);
        file.setKey(BDD_RELEASE_KEY, "1.0"_s);
        OtherProgram tool(file);
        tool.goOn(seconds, "COMMIT;");

        LogCapture log;
        FreshDatabase database(file.path());
        QCOMPARE(log.count("database is locked"_s), seconds == 1 ? 0 : 1);
        QVERIFY(tool.waitForFinished());
        QCOMPARE(outputs(file), "GCP0 RAWkept0"_s);
        QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), "1.1"_s);
    }

    const TestDatabase file; // with changes that somebody has not committed
    FreshDatabase database(file.path());
    OtherProgram tool(file, "BEGIN IMMEDIATE;");
    database.updateForwarderStatus(1, DataForwarderConfig::Working);
    QElapsedTimer clock;
    clock.start();
    for (int frame = 0; frame < 10; ++frame)
        database.updateForwarderStatus(1, DataForwarderConfig::Working);
    QVERIFY(database.lastStatusFailed());
    QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
    tool.goOn(0, "COMMIT;");
    QVERIFY(tool.waitForFinished());
    database.updateForwarderStatus(1, DataForwarderConfig::Working);
    QCOMPARE(file.forwarderStatus(1), 3);
    QVERIFY(!database.lastStatusFailed());
}

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
