#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "support/LogCapture.h"
#include "support/TestDatabase.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

namespace {

/// A store of its own on any path, as a new process would have it.
class FreshDatabase : public ConfigDatabase
{
public:
    explicit FreshDatabase(const QString &path) : ConfigDatabase(withoutConnection(path)) { }

private:
    static QString withoutConnection(const QString &path)
    {
        QSqlDatabase::removeDatabase(QLatin1String(QSqlDatabase::defaultConnection));
        return path;
    }
};

using Schema = QStringList;

const Schema oldestSchema{
    QStringLiteral(
        "CREATE TABLE radio_adapters(ids integer primary key, method text, port text, name text,"
        " autobaud bool, tx_enabled bool, baudrate int, enabled bool, discovered bool, status int)"),
    QStringLiteral("CREATE TABLE port_blacklist(ids integer primary key, port text)"),
    QStringLiteral(
        "CREATE TABLE data_forwarder(ids integer primary key, type text, comment text, target text,"
        " port text, enabled bool, status int)"),
    QStringLiteral("CREATE TABLE pending_actions(ids integer primary key, command text)"),
    QStringLiteral("INSERT INTO data_forwarder (type, target) VALUES ('RAW', 'a'), ('FILE', 'b')"),
};
const Schema columnsOfRelease10{QStringLiteral("ALTER TABLE radio_adapters ADD COLUMN esn TEXT"),
    QStringLiteral("ALTER TABLE data_forwarder ADD COLUMN secret TEXT"),
    QStringLiteral("ALTER TABLE data_forwarder ADD COLUMN context TEXT")};
const Schema keysTable{
    QStringLiteral("CREATE TABLE system_configuration(ids integer primary key, name text, value text)")};

QStringList keysAndValues(const TestDatabase &file)
{
    QStringList result;
    const Rows rows = file.run(QStringLiteral("SELECT name, value FROM system_configuration ORDER BY ids"));
    for (const auto &row : rows)
        result.append(row.at(0).toString() + QLatin1Char('=') + row.at(1).toString());
    return result;
}

QStringList columnsOf(const TestDatabase &file, const QString &table)
{
    QStringList result;
    const Rows rows = file.run(QStringLiteral("SELECT name FROM pragma_table_info('%1')").arg(table));
    for (const auto &row : rows)
        result.append(row.first().toString());
    return result;
}

} // namespace

class TestConfig : public QObject
{
    Q_OBJECT

private slots:
    void newFileHasSchemaAndDefaults();
    void migration_data();
    void migration();
    void migrationTwiceIsHarmless();
    void migrationInsertsCloudOnlyWhenMissing();
    void statusesAreResetAtStart();
    void adapterRows();
    void forwarderRows();
    void systemKeys();
    void pendingActions();
    void deletedFileIsMadeAnew();
    void fileThatIsNoDatabase();
    void damagedFileKeepsItsOutputs();
    void emptyFileIsFilled();
    void failedStatementsNameTheirOperation();
    void lockedFileIsWaitedFor_data();
    void lockedFileIsWaitedFor();
};

void TestConfig::newFileHasSchemaAndDefaults()
{
    const TestDatabase file;
    LogCapture log;
    FreshDatabase database(file.path());
    QCOMPARE(log.texts(QtInfoMsg),
        (QStringList{QStringLiteral("Creating a brand new Database"),
            QStringLiteral("Database: connection ok : populating fresh data")}));

    QStringList statements;
    const Rows rows = file.run(QStringLiteral("SELECT sql FROM sqlite_master WHERE type = 'table'"));
    for (const auto &row : rows)
        statements.append(row.first().toString());
    // SQLite keeps the text as given, less "IF NOT EXISTS" and the closing semicolon.
    QCOMPARE(statements,
        (QStringList{QStringLiteral("CREATE TABLE port_blacklist(ids integer primary key, port text)"),
            QStringLiteral(
                "CREATE TABLE system_configuration(ids integer primary key, name text, value text)"),
            QStringLiteral("CREATE TABLE radio_adapters(ids integer primary key, method text, port text, "
                           "name text, autobaud bool, tx_enabled bool, baudrate int, enabled bool, "
                           "discovered bool, status int, esn text)"),
            QStringLiteral("CREATE TABLE data_forwarder(ids integer primary key, type text, secret text, "
                           "context test, comment text, target text, port text, enabled bool, status int)"),
            QStringLiteral("CREATE TABLE pending_actions(ids integer primary key, command text)")}));

    QCOMPARE(database.getPortBlacklist(), (QStringList{QStringLiteral("ttyS0"), QStringLiteral("ttyAMA0")}));
    QCOMPARE(keysAndValues(file),
        QStringLiteral(
            "autokill_enabled=false autokill_user=undefined autokill_pwd=undefined"
            " owner_dept=undefined owner_email=undefined bdd_release=1.1 forward_invalid_data=false")
            .split(QLatin1Char(' ')));
    QVERIFY(database.getRadioAdapters().isEmpty());
    QVERIFY(!database.hasPendingActions());

    const Rows cloud = file.run(QStringLiteral(
        "SELECT type, target, context, comment, port, enabled, status, typeof(target), typeof(port), secret"
        " FROM data_forwarder"));
    QCOMPARE(cloud.size(), 1);
    const QVector<QVariant> expected{QStringLiteral("GCP"), QStringLiteral(""),
        QStringLiteral("geoserver-topic-0"), QStringLiteral("GCP Geoforwarder"), QStringLiteral(""), 1, 0,
        QStringLiteral("text"), QStringLiteral("text")};
    QCOMPARE(cloud.first().mid(0, 9), expected);

    const QByteArray secret = cloud.first().last().toByteArray();
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
    QTest::addColumn<QStringList>("log");

    const Schema release10 = oldestSchema + keysTable + columnsOfRelease10;
    const QString inserted = QStringLiteral("%1 not found - inserted.");
    const QStringList columnLines{QStringLiteral("ESN column does not exists - inserted"),
        QStringLiteral("SECRET column does not exists - inserted"),
        QStringLiteral("CONTEXT column does not exists - inserted"),
        QStringLiteral("Np GCP configuration found - defaulting.")};
    const QString updated = QStringLiteral("Update BDD schema and default conf to  :  \"1.1\"");
    const QString detected = QStringLiteral("Old database schema detected :  \"%1\"  - should be  \"1.1\"");
    const QString setRelease = QStringLiteral("INSERT INTO system_configuration (name, value) VALUES "
                                              "('autokill_enabled', 'true'), ('bdd_release', '%1')");

    QTest::newRow("0.21.0")
        << oldestSchema + keysTable + Schema{setRelease.arg(QStringLiteral("0.21.0"))}
        << "autokill_enabled=true bdd_release=1.1 owner_email=undefined owner_dept=undefined"
        << "GCP"
        << QStringList{detected.arg(QStringLiteral("0.21.0")),
               inserted.arg(QStringLiteral("OWNER_EMAIL_KEY")),
               inserted.arg(QStringLiteral("OWNER_DEPT_KEY"))}
            + columnLines + QStringList{updated};
    QTest::newRow("no release row") << oldestSchema + keysTable
                                    << "owner_email=undefined owner_dept=undefined bdd_release=1.1"
                                    << "GCP"
                                    << QStringList{detected.arg(QStringLiteral("undefined")),
                                           inserted.arg(QStringLiteral("OWNER_EMAIL_KEY")),
                                           inserted.arg(QStringLiteral("OWNER_DEPT_KEY")),
                                           inserted.arg(QStringLiteral("BDD_RELEASE_KEY"))}
            + columnLines + QStringList{updated};
    QTest::newRow("1.0") << release10 + Schema{setRelease.arg(QStringLiteral("1.0"))}
                         << "autokill_enabled=true bdd_release=1.1 forward_invalid_data=false"
                         << "RAW FILE"
                         << QStringList{detected.arg(QStringLiteral("1.0")),
                                inserted.arg(QStringLiteral("FORWARD_INVALID_DATA_KEY")), updated};
    QTest::newRow("newer") << release10 + Schema{setRelease.arg(QStringLiteral("2.0"))}
                           << "autokill_enabled=true bdd_release=2.0"
                           << "RAW FILE" << QStringList{detected.arg(QStringLiteral("2.0"))};
    QTest::newRow("current") << release10 + Schema{setRelease.arg(QStringLiteral("1.1"))}
                             << "autokill_enabled=true bdd_release=1.1"
                             << "RAW FILE" << QStringList();
}

void TestConfig::migration()
{
    QFETCH(QStringList, statements);
    QFETCH(QString, keys);
    QFETCH(QString, types);
    QFETCH(QStringList, log);
    const TestDatabase file;
    for (const QString &statement : qAsConst(statements))
        file.run(statement);

    LogCapture capture;
    FreshDatabase database(file.path());
    QCOMPARE(capture.texts(), log);
    QCOMPARE(keysAndValues(file).join(QLatin1Char(' ')), keys);
    QStringList found;
    for (const DataForwarderConfig &forwarder : database.getDataForwarders())
        found.append(forwarder.type);
    QCOMPARE(found.join(QLatin1Char(' ')), types);
    QCOMPARE(columnsOf(file, QStringLiteral("radio_adapters")).last(), QStringLiteral("esn"));
    QCOMPARE(columnsOf(file, QStringLiteral("data_forwarder")).mid(7),
        (QStringList{QStringLiteral("secret"), QStringLiteral("context")}));
}

void TestConfig::migrationTwiceIsHarmless()
{
    const TestDatabase file;
    for (const QString &statement : oldestSchema) // without the table of keys: it is made whole
        file.run(statement);
    FreshDatabase database(file.path());
    QVERIFY(keysAndValues(file).contains(QStringLiteral("forward_invalid_data=false")));
    file.setKey(BDD_RELEASE_KEY, QStringLiteral("0.21.0"));
    LogCapture log;
    database.openDatabase();
    database.checkDatabaseRelease();
    database.closeDatabase();
    QCOMPARE(log.texts().size(), 2);
    QCOMPARE(keysAndValues(file).size(), 7);
    QCOMPARE(database.getDataForwarders().size(), 1);
}

void TestConfig::migrationInsertsCloudOnlyWhenMissing()
{
    const TestDatabase file;
    for (const QString &statement : oldestSchema + keysTable)
        file.run(statement);
    file.run(QStringLiteral("INSERT INTO data_forwarder (type, target) VALUES ('GCP', 'kept')"));
    FreshDatabase database(file.path());
    QCOMPARE(database.getDataForwarders().size(), 1);
    QCOMPARE(database.getDataForwarders().first().target, QStringLiteral("kept"));
}

void TestConfig::statusesAreResetAtStart()
{
    const TestDatabase file;
    {
        FreshDatabase made(file.path());
    }
    file.addStaticRadio(QStringLiteral("pts/1"), QStringLiteral("one"));
    file.run(QStringLiteral("UPDATE radio_adapters SET status = 2"));
    file.run(QStringLiteral("UPDATE data_forwarder SET status = 4"));
    FreshDatabase database(file.path());
    QCOMPARE(file.value(QStringLiteral("SELECT status FROM radio_adapters")).toInt(), 0);
    QCOMPARE(file.value(QStringLiteral("SELECT status FROM data_forwarder")).toInt(), 0);
}

void TestConfig::adapterRows()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    const auto config = QSharedPointer<RadioAdapterConfig>::create();
    config->method = QStringLiteral("UART");
    config->port = QStringLiteral("ttyUSB3");
    config->name = QStringLiteral("O'Neill; \"é\"");
    config->autobaud = config->tx_enabled = config->enabled = true;
    config->baudrate = 4800;
    config->status = RadioAdapterConfig::Identified;
    database.addDiscoveredAdapter(config);
    QCOMPARE(config->ids, 1);
    QCOMPARE(file.value(QStringLiteral("SELECT esn FROM radio_adapters")), QVariant(QStringLiteral("")));

    config->esn = QStringLiteral("0123");
    database.updateDiscoveredAdapter(config);
    const auto stray = QSharedPointer<RadioAdapterConfig>::create();
    LogCapture log;
    database.updateDiscoveredAdapter(stray); // no such row: nothing happens
    QVERIFY(log.texts().isEmpty());

    auto rows = database.getRadioAdapters();
    QCOMPARE(rows.size(), 1);
    QCOMPARE(rows.first()->esn, config->esn);
    QCOMPARE(rows.first()->name, config->name);
    QCOMPARE(rows.first()->baudrate, 4800);
    QVERIFY(rows.first()->autobaud && rows.first()->tx_enabled && rows.first()->enabled);
    QVERIFY(!rows.first()->discovered);
    QCOMPARE(RadioAdapterConfig(*rows.first()).port, config->port);

    for (const int stored : {-1, 0, 1, 2, 5}) {
        file.run(QStringLiteral("UPDATE radio_adapters SET status = ?"), {stored});
        QCOMPARE(int(database.getRadioAdapters().first()->status), stored == 0 || stored == 1 ? stored : 2);
    }
}

void TestConfig::forwarderRows()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    file.run(QStringLiteral("DELETE FROM data_forwarder"));
    const int id = file.addForwarder(QStringLiteral("eRaw"), QStringLiteral("host"), 9000);
    file.run(QStringLiteral("INSERT INTO data_forwarder (type, port, enabled) VALUES ('gcp', '', 0)"));

    const QList<DataForwarderConfig> rows = database.getDataForwarders();
    QCOMPARE(rows.size(), 2);
    QCOMPARE(rows.first().type, QStringLiteral("ERAW"));
    QCOMPARE(rows.first().port, 9000);
    QVERIFY(rows.first().enabled && !rows.last().enabled);
    QCOMPARE(rows.last().port, 0);

    database.updateForwarderStatus(id, DataForwarderConfig::Failed);
    QCOMPARE(file.value(QStringLiteral("SELECT typeof(status) || status FROM data_forwarder")).toString(),
        QStringLiteral("integer4"));
    for (const int stored : {-1, 0, 3, 4, 9}) {
        file.run(QStringLiteral("UPDATE data_forwarder SET status = ?"), {stored});
        QCOMPARE(int(database.getForwarderConfiguration(id).status), stored == 0 || stored == 3 ? stored : 4);
    }

    LogCapture log;
    const DataForwarderConfig missing = database.getForwarderConfiguration(7);
    QCOMPARE(missing.ids, -1);
    QCOMPARE(missing.port, -1);
    QVERIFY(!missing.enabled && missing.status == DataForwarderConfig::Idle);
    QCOMPARE(log.texts(),
        QStringList(
            QStringLiteral("An error has been detected:  looking for configuration for forwarder id= 7"
                           "  but not found in database")));
}

void TestConfig::systemKeys()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    file.setKey(QStringLiteral("odd 'key'"), QStringLiteral("TRUE"));
    QCOMPARE(database.getSystemConfigurationValue(QStringLiteral("odd 'key'")), QStringLiteral("TRUE"));
    QCOMPARE(database.getSystemConfigurationValue(QStringLiteral("missing")), QStringLiteral("undefined"));
}

void TestConfig::pendingActions()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    QCOMPARE(database.getFirstPendingActions(), QString());
    file.run(QStringLiteral("INSERT INTO pending_actions (command) VALUES ('disp,hello'), ('REBOOT')"));
    QVERIFY(database.hasPendingActions());
    QCOMPARE(database.getFirstPendingActions(), QStringLiteral("DISP,HELLO"));
    QCOMPARE(file.value(QStringLiteral("SELECT group_concat(command) FROM pending_actions")).toString(),
        QStringLiteral("REBOOT"));
}

void TestConfig::deletedFileIsMadeAnew()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    database.updateForwarderStatus(1, DataForwarderConfig::Failed);
    QVERIFY(QFile::remove(file.path()));
    QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), QStringLiteral("1.1"));
    QCOMPARE(file.value(QStringLiteral("SELECT status FROM data_forwarder")).toInt(), 0);
}

void TestConfig::fileThatIsNoDatabase()
{
    const TestDatabase file;
    QFile rubbish(file.path());
    QVERIFY(rubbish.open(QIODevice::WriteOnly));
    rubbish.write(QByteArray(5000, 'x'));
    rubbish.close();

    LogCapture log;
    FreshDatabase database(file.path());
    QVERIFY(
        log.count(QStringLiteral("void ConfigDatabase::checkDatabaseRelease()  : error caught :  QSqlError("))
        > 2);
    QCOMPARE(log.count(QStringLiteral("void ConfigDatabase::resetAdapters()  : error caught : ")), 1);
    QVERIFY(database.getDataForwarders().isEmpty());
    QVERIFY(!database.hasPendingActions());
    QVERIFY(rubbish.open(QIODevice::ReadOnly));
    QCOMPARE(rubbish.readAll(), QByteArray(5000, 'x'));
}

void TestConfig::damagedFileKeepsItsOutputs()
{
    const TestDatabase file;
    {
        FreshDatabase made(file.path());
    }
    file.addForwarder(QStringLiteral("RAW"), QStringLiteral("kept"));
    const int page =
        file.value(QStringLiteral("SELECT rootpage FROM sqlite_master WHERE name = 'system_configuration'"))
            .toInt();
    QFile bytes(file.path());
    QVERIFY(bytes.open(QIODevice::ReadWrite));
    QVERIFY(bytes.seek(qint64(page - 1) * 4096));
    bytes.write(QByteArray(64, '\xff'));
    bytes.close();
    LogCapture log;
    FreshDatabase database(file.path());
    QCOMPARE(log.count(QStringLiteral("Old database schema detected")), 0);
    QCOMPARE(database.getDataForwarders().size(), 2);
}

void TestConfig::emptyFileIsFilled()
{
    const TestDatabase file;
    QVERIFY(QFile(file.path()).open(QIODevice::WriteOnly));
    FreshDatabase database(file.path());
    QCOMPARE(file.value(QStringLiteral("SELECT count(*) FROM sqlite_master")).toInt(), 5);
}

void TestConfig::failedStatementsNameTheirOperation()
{
    const TestDatabase file;
    FreshDatabase database(file.path());
    for (const char *table :
        {"radio_adapters", "port_blacklist", "system_configuration", "data_forwarder", "pending_actions"})
        file.run(QStringLiteral("ALTER TABLE %1 RENAME TO gone_%1").arg(QLatin1String(table)));

    LogCapture log;
    const auto config = QSharedPointer<RadioAdapterConfig>::create();
    database.addDiscoveredAdapter(config);
    QCOMPARE(config->ids, -1);
    database.updateDiscoveredAdapter(config);
    database.updateForwarderStatus(3, DataForwarderConfig::Failed);
    database.openDatabase();
    database.updateSchemaVersion();
    database.closeDatabase();
    const QStringList operations{
        QStringLiteral("void ConfigDatabase::addDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)"),
        QStringLiteral("void ConfigDatabase::updateDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)"),
        QStringLiteral(
            "void ConfigDatabase::updateForwarderStatus(int, DataForwarderConfig::ForwarderStatus)"),
        QStringLiteral("void ConfigDatabase::updateSchemaVersion()")};
    const QStringList lines = log.texts();
    QCOMPARE(lines.size(), operations.size());
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(lines.at(i).startsWith(operations.at(i) + QStringLiteral("  : error caught :  QSqlError(")),
            qPrintable(lines.at(i)));

    log.clear();
    QVERIFY(database.getRadioAdapters().isEmpty());
    QVERIFY(database.getPortBlacklist().isEmpty());
    QVERIFY(database.getDataForwarders().isEmpty());
    QVERIFY(!database.hasPendingActions());
    QCOMPARE(database.getFirstPendingActions(), QString());
    QCOMPARE(database.getSystemConfigurationValue(BDD_RELEASE_KEY), QStringLiteral("undefined"));
    QVERIFY(log.texts().isEmpty());
}

void TestConfig::lockedFileIsWaitedFor_data()
{
    QTest::addColumn<int>("seconds");
    QTest::addColumn<int>("failures");
    QTest::newRow("shorter than the driver waits") << 1 << 0;
    QTest::newRow("longer: the outputs of a current file are kept") << 7 << 1;
}

void TestConfig::lockedFileIsWaitedFor()
{
    QFETCH(int, seconds);
    QFETCH(int, failures);
    const TestDatabase file;
    {
        FreshDatabase made(file.path());
    }
    file.addForwarder(QStringLiteral("RAW"), QStringLiteral("kept"));
    file.run(QStringLiteral("UPDATE data_forwarder SET status = 4"));
    QProcess tool;
    tool.start(QStringLiteral("sqlite3"), {file.path()});
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
    QCOMPARE(log.texts().size(), failures);
    QCOMPARE(log.count(QStringLiteral("database is locked")), failures);
    QCOMPARE(file.value(QStringLiteral("SELECT group_concat(type || status) FROM data_forwarder")).toString(),
        QStringLiteral("GCP0,RAW0"));
    tool.waitForFinished();
}

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
