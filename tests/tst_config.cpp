#include "config/ConfigKeys.h"
#include "support/LogCapture.h"
#include "support/TestDatabase.h"

#include <csignal>
#include <sys/resource.h>

namespace {

using Statements = QStringList;

const Statements oldestSchema{
    "CREATE TABLE radio_adapters(ids integer primary key, method text, port text, name text,"
    " autobaud bool, tx_enabled bool, baudrate int, enabled bool, discovered bool, status int)"_s,
    "CREATE TABLE port_blacklist(ids integer primary key, port text)"_s,
    "CREATE TABLE data_forwarder(ids integer primary key, type text, comment text, target text,"
    " port text, enabled bool, status int)"_s,
    "CREATE TABLE pending_actions(ids integer primary key, command text)"_s,
    "INSERT INTO data_forwarder (type, target) VALUES ('RAW', 'a'), ('FILE', 'b')"_s,
};
const Statements keysTable{
    "CREATE TABLE system_configuration(ids integer primary key, name text, value text)"_s,
    "INSERT INTO system_configuration (name, value) VALUES ('autokill_enabled', 'true')"_s};
const Statements columnsOfRelease10{"ALTER TABLE radio_adapters ADD COLUMN esn TEXT"_s,
    "ALTER TABLE data_forwarder ADD COLUMN secret TEXT"_s,
    "ALTER TABLE data_forwarder ADD COLUMN context TEXT"_s};

Statements releaseRow(const char *release)
{
    return {"INSERT INTO system_configuration (name, value) VALUES ('bdd_release', '%1')"_s.arg(
        QLatin1String(release))};
}

QString keysAndValues(const TestDatabase &file)
{
    return file.run("SELECT name || '=' || value FROM system_configuration ORDER BY ids"_s)
        .replace(u'\n', u' ');
}

QString outputs(const TestDatabase &file)
{
    return file.run("SELECT group_concat(type || status, ' ') FROM data_forwarder"_s);
}

} // namespace

class TestConfig : public QObject
{
    Q_OBJECT

private slots:
    void newFileHasSchemaAndDefaults();
    void migration_data();
    void migration();
    void migrationKeepsWhatIsThere();
    void adapterRows();
    void forwarderRows();
    void deletedOrEmptyFileIsFilled();
    void fullDiskLeavesNoHalfFile();
    void damagedFileKeepsItsOutputs();
    void failedStatementsNameTheirOperation();
    void lockedFileIsWaitedFor();
};

void TestConfig::newFileHasSchemaAndDefaults()
{
    const TestDatabase file;
    LogCapture log;
    FreshDatabase database(file.path());
    QCOMPARE(log.text(QtInfoMsg),
        "Creating a brand new Database\nDatabase: connection ok : populating fresh data"_s);
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
    QVERIFY(database.getRadioAdapters().isEmpty());
    QVERIFY(!database.hasPendingActions());
    QCOMPARE(file.run("SELECT type, target, context, comment, port, enabled, status, typeof(target),"
                      " typeof(port) FROM data_forwarder"_s),
        "GCP||geoserver-topic-0|GCP Geoforwarder||1|0|text|text"_s);

    const QByteArray secret = file.run("SELECT secret FROM data_forwarder"_s).toLatin1();
    QCOMPARE(secret.size(), 3192);
    const QJsonObject document = QJsonDocument::fromJson(QByteArray::fromBase64(secret)).object();
    for (const char *key : {"project_id", "private_key_id", "private_key", "client_email", "token_uri"})
        QVERIFY2(!document.value(QLatin1String(key)).toString().isEmpty(), key);
}

void TestConfig::migration_data()
{
    QTest::addColumn<QStringList>("statements");
    QTest::addColumn<QString>("keys");
    QTest::addColumn<QString>("types");
    QTest::addColumn<QString>("log");
    const auto row = [](const char *name, const Statements &statements, const char *keys, const char *types,
                         const QString &log) { QTest::newRow(name) << statements << keys << types << log; };

    const Statements oldest = oldestSchema + keysTable;
    const Statements release10 = oldest + columnsOfRelease10;
    const QString detected = "Old database schema detected :  \"%1\"  - should be  \"1.1\""_s;
    const QString ownerKeys =
        "\nOWNER_EMAIL_KEY not found - inserted.\nOWNER_DEPT_KEY not found - inserted."_s;
    const QString columns =
        "\nESN column does not exists - inserted\nSECRET column does not exists - inserted"
        "\nCONTEXT column does not exists - inserted"
        "\nNp GCP configuration found - defaulting."_s;
    const QString updated = "\nUpdate BDD schema and default conf to  :  \"1.1\""_s;
    row("0.21.0", oldest + releaseRow("0.21.0"),
        "autokill_enabled=true bdd_release=1.1 owner_email=undefined owner_dept=undefined", "GCP0",
        detected.arg("0.21.0"_s) + ownerKeys + columns + updated);
    row("no release row", oldest,
        "autokill_enabled=true owner_email=undefined owner_dept=undefined bdd_release=1.1", "GCP0",
        detected.arg("undefined"_s) + ownerKeys + "\nBDD_RELEASE_KEY not found - inserted."_s + columns
            + updated);
    row("1.0", release10 + releaseRow("1.0"),
        "autokill_enabled=true bdd_release=1.1 forward_invalid_data=false", "RAW0 FILE0",
        detected.arg("1.0"_s) + "\nFORWARD_INVALID_DATA_KEY not found - inserted."_s + updated);
    row("newer", release10 + releaseRow("2.0"), "autokill_enabled=true bdd_release=2.0", "RAW0 FILE0",
        detected.arg("2.0"_s));
    row("current", release10 + releaseRow("1.1"), "autokill_enabled=true bdd_release=1.1", "RAW0 FILE0", {});
}

void TestConfig::migration()
{
    QFETCH(QStringList, statements);
    QFETCH(QString, keys);
    QFETCH(QString, types);
    QFETCH(QString, log);
    const TestDatabase file;
    for (const QString &statement : qAsConst(statements))
        file.run(statement);

    LogCapture capture;
    FreshDatabase database(file.path());
    QCOMPARE(capture.text(), log);
    QCOMPARE(keysAndValues(file), keys);
    QCOMPARE(outputs(file), types);
    const QString columns = "SELECT group_concat(name) FROM pragma_table_info('%1')"_s;
    QVERIFY(file.run(columns.arg("radio_adapters"_s)).endsWith(",esn"_s));
    QVERIFY(file.run(columns.arg("data_forwarder"_s)).endsWith(",secret,context"_s));
}

void TestConfig::migrationKeepsWhatIsThere()
{
    const TestDatabase file;
    for (const QString &statement : oldestSchema) // without the table of keys: it is made whole
        file.run(statement);
    file.run("INSERT INTO data_forwarder (type, target, status) VALUES ('GCP', 'kept', 4)"_s);
    FreshDatabase database(file.path());
    QVERIFY(keysAndValues(file).endsWith("forward_invalid_data=false"_s));
    file.setKey("odd 'key'"_s, "TRUE"_s);
    QCOMPARE(database.getSystemConfigurationValue("odd 'key'"_s), "TRUE"_s);
    QCOMPARE(file.run("SELECT target, status FROM data_forwarder"_s), "kept|0"_s);

    file.setKey(BDD_RELEASE_KEY, "0.21.0"_s);
    LogCapture log;
    database.openDatabase();
    database.checkDatabaseRelease();
    database.closeDatabase();
    QCOMPARE(log.text().count(u'\n'), 1); // what is there already is not inserted again
    QCOMPARE(keysAndValues(file).count(u'='), 8);
    QCOMPARE(outputs(file), "GCP0"_s);
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
    LogCapture log;
    database.updateDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>::create()); // no such row
    QCOMPARE(log.text(), QString());
    QCOMPARE(database.getRadioAdapters().size(), 1);
    const RadioAdapterConfig read(*database.getRadioAdapters().first());
    QCOMPARE((QStringList{read.method, read.port, read.name, read.esn}),
        (QStringList{config->method, config->port, config->name, config->esn}));
    QCOMPARE(read.baudrate, 4800);
    QVERIFY(read.autobaud && read.tx_enabled && read.enabled && !read.discovered);

    for (const int stored : {-1, 0, 1, 2, 5}) {
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

    const QList<DataForwarderConfig> rows = database.getDataForwarders();
    QCOMPARE(rows.size(), 2);
    QCOMPARE(rows.first().type, "ERAW"_s);
    QCOMPARE(rows.first().port, 9000);
    QVERIFY(rows.first().enabled && !rows.last().enabled);
    QCOMPARE(rows.last().port, 0);

    database.updateForwarderStatus(id, DataForwarderConfig::Failed);
    QCOMPARE(file.run("SELECT typeof(status), status FROM data_forwarder LIMIT 1"_s), "integer|4"_s);
    for (const int stored : {-1, 0, 3, 4, 9}) {
        file.run("UPDATE data_forwarder SET status = ?"_s, {stored});
        QCOMPARE(int(database.getForwarderConfiguration(id).status), stored == 0 || stored == 3 ? stored : 4);
    }

    LogCapture log;
    const DataForwarderConfig missing = database.getForwarderConfiguration(7);
    QVERIFY(missing.ids == -1 && missing.port == -1);
    QVERIFY(!missing.enabled && missing.status == DataForwarderConfig::Idle);
    QCOMPARE(log.text(),
        "An error has been detected:  looking for configuration for forwarder id= 7  but not found in "
        "database"_s);
}

void TestConfig::deletedOrEmptyFileIsFilled()
{
    const TestDatabase file;
    QVERIFY(QFile(file.path()).open(QIODevice::WriteOnly));
    FreshDatabase database(file.path());
    QCOMPARE(file.run("SELECT count(*) FROM sqlite_master"_s), "5"_s);
    database.updateForwarderStatus(1, DataForwarderConfig::Failed);
    QVERIFY(QFile::remove(file.path()));
    QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), "1.1"_s);
    QCOMPARE(outputs(file), "GCP0"_s);
}

void TestConfig::fullDiskLeavesNoHalfFile()
{
    const TestDatabase file;
    rlimit unlimited = {};
    QCOMPARE(::getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit twoPages = {8192, unlimited.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_FSIZE, &twoPages), 0);
    FreshDatabase database(file.path());
    QCOMPARE(::setrlimit(RLIMIT_FSIZE, &unlimited), 0);
    QCOMPARE(QFileInfo(file.path()).size(), 0);
    QVERIFY(!database.hasPendingActions());
    QCOMPARE(file.run("SELECT count(*) FROM sqlite_master"_s), "5"_s);
    QCOMPARE(outputs(file), "GCP0"_s);
}

void TestConfig::damagedFileKeepsItsOutputs()
{
    const TestDatabase file;
    FreshDatabase made(file.path());
    file.addForwarder("RAW"_s, "kept"_s);
    const int page =
        file.run("SELECT rootpage FROM sqlite_master WHERE name = 'system_configuration'"_s).toInt();
    QFile bytes(file.path());
    QVERIFY(bytes.open(QIODevice::ReadWrite) && bytes.seek(qint64(page - 1) * 4096));
    bytes.write(QByteArray(64, '\xff'));
    bytes.close();
    LogCapture log;
    FreshDatabase database(file.path());
    QCOMPARE(log.count("Old database schema detected"_s), 0);
    QCOMPARE(database.getDataForwarders().size(), 2);
}

void TestConfig::failedStatementsNameTheirOperation()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    for (const char *table :
        {"radio_adapters", "port_blacklist", "system_configuration", "data_forwarder", "pending_actions"})
        file.run("ALTER TABLE %1 RENAME TO gone_%1"_s.arg(QLatin1String(table)));

    LogCapture log;
    const auto config = QSharedPointer<RadioAdapterConfig>::create();
    database.addDiscoveredAdapter(config);
    QCOMPARE(config->ids, -1);
    database.updateDiscoveredAdapter(config);
    database.updateForwarderStatus(3, DataForwarderConfig::Failed);
    database.openDatabase();
    database.updateSchemaVersion();
    database.closeDatabase();
    QCOMPARE(log.text().count(u'\n'), 3);
    for (const QString &operation : {"addDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)"_s,
             "updateDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)"_s,
             "updateForwarderStatus(int, DataForwarderConfig::ForwarderStatus)"_s, "updateSchemaVersion()"_s})
        QCOMPARE(log.count("void ConfigDatabase::%1  : error caught :  QSqlError("_s.arg(operation)), 1);

    log.clear(); // what reads is silent
    QVERIFY(database.getRadioAdapters().isEmpty() && database.getPortBlacklist().isEmpty());
    QVERIFY(database.getDataForwarders().isEmpty() && !database.hasPendingActions());
    QCOMPARE(database.getFirstPendingActions(), QString());
    QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), "undefined"_s);
    QCOMPARE(log.text(), QString());
}

void TestConfig::lockedFileIsWaitedFor()
{
    for (const int seconds : {1, 7}) { // the driver waits for less than the second
        const TestDatabase file;
        FreshDatabase made(file.path());
        file.addForwarder("RAW"_s, "kept"_s);
        QProcess tool;
        tool.start("sqlite3"_s, {file.path()});
        tool.write("BEGIN EXCLUSIVE;\nSELECT 'locked';\n");
        QVERIFY(tool.waitForReadyRead());
        tool.write(".shell sleep " + QByteArray::number(seconds) + "\nCOMMIT;\n");
        QVERIFY(tool.waitForBytesWritten());
        tool.closeWriteChannel();

        LogCapture log;
        QElapsedTimer clock;
        clock.start();
        FreshDatabase database(file.path());
        QVERIFY(clock.elapsed() >= 700);
        QCOMPARE(log.count("error caught"_s), seconds == 1 ? 0 : 1);
        QCOMPARE(log.count("database is locked"_s), seconds == 1 ? 0 : 1);
        QVERIFY(tool.waitForFinished());
        QCOMPARE(outputs(file), "GCP0 RAW0"_s);
    }
}

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
