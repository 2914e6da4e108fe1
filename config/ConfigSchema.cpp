#include "config/ConfigDatabase.h"

#include "config/ConfigKeys.h"
#include "config/SqlStatement.h"

#include <QDebug>
#include <QFile>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

// A resource of a static library has to be asked for by name, outside of any namespace.
static void initConfigResource()
{
    Q_INIT_RESOURCE(config);
}

namespace {

const char *const initAdaptersSignature = "void ConfigDatabase::initAdapters()";
const char *const initUartBlacklistSignature = "void ConfigDatabase::initUartBlacklist()";
const char *const initSystemConfigurationSignature = "void ConfigDatabase::initSystemConfiguration()";
const char *const initDataForwarderSignature = "void ConfigDatabase::initDataForwarder()";
const char *const initPendingActionsSignature = "void ConfigDatabase::initPendingActions()";
const char *const updateSchemaVersionSignature = "void ConfigDatabase::updateSchemaVersion()";
const char *const checkDatabaseReleaseSignature = "void ConfigDatabase::checkDatabaseRelease()";

const QString selectKeyStatement =
    QStringLiteral("SELECT * FROM system_configuration WHERE name=:name LIMIT 1");
const QString selectAllKeysStatement = QStringLiteral("SELECT * FROM system_configuration");
const QString insertKeyStatement =
    QStringLiteral("INSERT INTO system_configuration (name, value) VALUES (:name, :value)");

struct SystemKey
{
    const QString &name;
    const QString value;
};

/// The settings of a new file, in the order in which they are inserted.
const SystemKey defaultKeys[] = {
    {AUTOKILL_ENABLED_KEY, QStringLiteral("false")},
    {AUTOKILL_USER_KEY, UNDEFINED_VALUE},
    {AUTOKILL_PWD_KEY, UNDEFINED_VALUE},
    {OWNER_DEPT_KEY, UNDEFINED_VALUE},
    {OWNER_EMAIL_KEY, UNDEFINED_VALUE},
    {BDD_RELEASE_KEY, BDD_RELEASE_VALUE},
    {FORWARD_INVALID_DATA_KEY, QStringLiteral("false")},
};

const QString defaultBlacklist[] = {QStringLiteral("ttyS0"), QStringLiteral("ttyAMA0")};

void createTable(const QString &statement, const char *operation)
{
    QSqlQuery query;
    query.prepare(statement);
    checkStatement(executePrepared(query), operation, query);
}

bool lookUpKey(QSqlQuery &query, const QString &key)
{
    query.clear();
    query.prepare(selectKeyStatement);
    query.bindValue(QStringLiteral(":name"), key);
    return checkStatement(executePrepared(query), checkDatabaseReleaseSignature, query);
}

/// Whether the look-up failed for another reason than a file that has no such table, or is no database at
/// all: one that is locked or damaged, or a disk that fails, says nothing of the release.
bool cannotTellRelease(const QSqlQuery &query)
{
    constexpr int primaryCode = 0xff; // SQLite's extended result codes hold the primary one in their low byte
    constexpr int noSuchTable = 1;
    constexpr int noDatabase = 26;
    const int code = query.lastError().nativeErrorCode().toInt() & primaryCode;
    return code != noSuchTable && code != noDatabase;
}

bool execute(QSqlQuery &query, const QString &statement)
{
    query.clear();
    return query.exec(statement);
}

/// The cloud credential of a new file: a service-account document as one line of base64 text.
QString defaultCredential()
{
    initConfigResource();
    QFile file(QStringLiteral(":/config/default_credential.b64"));
    file.open(QIODevice::ReadOnly);
    return QString::fromLatin1(file.readAll().trimmed());
}

} // namespace

bool ConfigDatabase::createDatabase()
{
    qInfo() << "Creating a brand new Database";
    if (!m_database.open()) {
        qInfo() << "Error: connection with database fail";
        return false;
    }
    qInfo() << "Database: connection ok : populating fresh data";
    // All or nothing: a power cut or a full disk on the way leaves an empty file, which counts as none.
    m_database.transaction();
    initUartBlacklist();
    initSystemConfiguration();
    initAdapters();
    initDataForwarder();
    initPendingActions();
    if (!m_database.commit())
        qInfo() << "Database: fresh data could not be stored : " << m_database.lastError();
    m_database.close();
    return true;
}

void ConfigDatabase::initUartBlacklist()
{
    createTable(QStringLiteral("CREATE TABLE port_blacklist(ids integer primary key, port text);"),
        initUartBlacklistSignature);
    QSqlQuery query;
    const bool prepared = query.prepare(QStringLiteral("INSERT INTO port_blacklist (port) VALUES (:port)"));
    for (const QString &port : defaultBlacklist) {
        query.bindValue(QStringLiteral(":port"), port);
        checkStatement(prepared && query.exec(), initUartBlacklistSignature, query);
    }
}

void ConfigDatabase::initSystemConfiguration()
{
    createTable(
        QStringLiteral("CREATE TABLE system_configuration(ids integer primary key, name text, value text);"),
        initSystemConfigurationSignature);
    QSqlQuery query;
    const bool prepared = query.prepare(insertKeyStatement);
    for (const SystemKey &key : defaultKeys) {
        query.bindValue(QStringLiteral(":name"), key.name);
        query.bindValue(QStringLiteral(":value"), key.value);
        checkStatement(prepared && query.exec(), initSystemConfigurationSignature, query);
    }
}

void ConfigDatabase::initAdapters()
{
    createTable(QStringLiteral("CREATE TABLE radio_adapters(ids integer primary key, method text, port text, "
                               "name text, autobaud bool, tx_enabled bool, baudrate int, enabled bool, "
                               "discovered bool, status int, esn text);"),
        initAdaptersSignature);
}

void ConfigDatabase::initDataForwarder()
{
    // The type of "context" is written "test" on purpose: SQLite takes any name, and tools compare the
    // schema.
    createTable(QStringLiteral(
                    "CREATE TABLE IF NOT EXISTS data_forwarder(ids integer primary key, type text, secret "
                    "text, context test, comment text, target text, port text, enabled bool, status int);"),
        initDataForwarderSignature);
    QSqlQuery query;
    query.prepare(QStringLiteral(
        "INSERT INTO data_forwarder (type, target, secret, context, comment, port, enabled, status) VALUES "
        "(:type, :target, :secret, :context, :comment, :port, :enabled, :status)"));
    query.bindValue(QStringLiteral(":type"), QStringLiteral("GCP"));
    query.bindValue(QStringLiteral(":target"), QStringLiteral(""));
    query.bindValue(QStringLiteral(":secret"), defaultCredential());
    query.bindValue(QStringLiteral(":context"), QStringLiteral("geoserver-topic-0"));
    query.bindValue(QStringLiteral(":comment"), QStringLiteral("GCP Geoforwarder"));
    query.bindValue(QStringLiteral(":port"), QStringLiteral(""));
    query.bindValue(QStringLiteral(":enabled"), true);
    query.bindValue(QStringLiteral(":status"), 0);
    checkStatement(executePrepared(query), initDataForwarderSignature, query);
}

void ConfigDatabase::initPendingActions()
{
    createTable(QStringLiteral("CREATE TABLE pending_actions(ids integer primary key, command text);"),
        initPendingActionsSignature);
}

void ConfigDatabase::checkDatabaseRelease()
{
    QSqlQuery query;
    QString release = UNDEFINED_VALUE;
    if (!lookUpKey(query, BDD_RELEASE_KEY) && cannotTellRelease(query))
        return; // migrating a current file would cost its outputs
    if (query.next())
        release = query.value(QStringLiteral("value")).toString();
    if (release == BDD_RELEASE_VALUE)
        return;

    qInfo() << "Old database schema detected : " << release << " - should be " << BDD_RELEASE_VALUE;
    if (release == UNDEFINED_VALUE || release == QLatin1String("0.21.0"))
        migrateFromOldest(query);
    else if (release == QLatin1String("1.0"))
        migrateFromRelease10(query);
    // Any other release is newer or unknown and stays as it is.
}

void ConfigDatabase::migrateFromOldest(QSqlQuery &query)
{
    // forward_invalid_data is not added here, on purpose: it then reads as "undefined".
    if (!execute(query, selectAllKeysStatement)) {
        qInfo() << "Table system_configuration does not exists - creating a new one.";
        initSystemConfiguration();
    } else {
        insertMissingKey(query, OWNER_EMAIL_KEY, UNDEFINED_VALUE, "OWNER_EMAIL_KEY not found - inserted.");
        insertMissingKey(query, OWNER_DEPT_KEY, UNDEFINED_VALUE, "OWNER_DEPT_KEY not found - inserted.");
        insertMissingKey(query, BDD_RELEASE_KEY, UNDEFINED_VALUE, "BDD_RELEASE_KEY not found - inserted.");
    }
    addMissingColumn(query, QStringLiteral("SELECT esn FROM radio_adapters"),
        QStringLiteral("ALTER TABLE radio_adapters ADD COLUMN esn TEXT"),
        "ESN column does not exists - inserted");
    addMissingColumn(query, QStringLiteral("SELECT secret FROM data_forwarder"),
        QStringLiteral("ALTER TABLE data_forwarder ADD COLUMN secret TEXT"),
        "SECRET column does not exists - inserted");
    addMissingColumn(query, QStringLiteral("SELECT context FROM data_forwarder"),
        QStringLiteral("ALTER TABLE data_forwarder ADD COLUMN context TEXT"),
        "CONTEXT column does not exists - inserted");
    // Outputs of the oldest layout other than the cloud are discarded, on purpose.
    checkStatement(execute(query, QStringLiteral("DELETE FROM data_forwarder WHERE type <> 'GCP'")),
        checkDatabaseReleaseSignature, query);
    insertMissingCloudForwarder(query);
    updateSchemaVersion();
}

void ConfigDatabase::migrateFromRelease10(QSqlQuery &query)
{
    if (!execute(query, selectAllKeysStatement)) {
        qInfo() << "Table system_configuration does not exists - creating a new one.";
        initSystemConfiguration();
    } else {
        insertMissingKey(query, FORWARD_INVALID_DATA_KEY, QStringLiteral("false"),
            "FORWARD_INVALID_DATA_KEY not found - inserted.");
    }
    updateSchemaVersion();
}

void ConfigDatabase::insertMissingKey(
    QSqlQuery &query, const QString &key, const QString &value, const char *insertedText)
{
    if (!lookUpKey(query, key) || query.next())
        return;
    query.clear();
    query.prepare(insertKeyStatement);
    query.bindValue(QStringLiteral(":name"), key);
    query.bindValue(QStringLiteral(":value"), value);
    if (checkStatement(executePrepared(query), checkDatabaseReleaseSignature, query))
        qInfo() << insertedText;
}

void ConfigDatabase::addMissingColumn(
    QSqlQuery &query, const QString &probe, const QString &alteration, const char *insertedText)
{
    if (execute(query, probe))
        return;
    if (checkStatement(execute(query, alteration), checkDatabaseReleaseSignature, query))
        qInfo() << insertedText;
}

void ConfigDatabase::insertMissingCloudForwarder(QSqlQuery &query)
{
    const bool counted =
        execute(query, QStringLiteral("SELECT COUNT(*) AS RES FROM data_forwarder WHERE type == 'GCP'"));
    if (!checkStatement(counted, checkDatabaseReleaseSignature, query))
        return;
    query.next();
    if (query.value(0).toInt() == 0) {
        qInfo() << "Np GCP configuration found - defaulting."; // spelled so on purpose
        initDataForwarder();
    }
}

void ConfigDatabase::updateSchemaVersion()
{
    QSqlQuery query;
    query.prepare(QStringLiteral("UPDATE system_configuration SET value=:value WHERE name LIKE :name"));
    query.bindValue(QStringLiteral(":name"), BDD_RELEASE_KEY);
    query.bindValue(QStringLiteral(":value"), BDD_RELEASE_VALUE);
    if (checkStatement(executePrepared(query), updateSchemaVersionSignature, query))
        qInfo() << "Update BDD schema and default conf to  : " << BDD_RELEASE_VALUE;
}
