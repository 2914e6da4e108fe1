#include "config/ConfigDatabase.h"

#include "config/ConfigKeys.h"
#include "config/SchemaStatements.h"
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

const QString selectTablesStatement =
    QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table' LIMIT 1");

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
    m_setupFailureLogged = false; // whatever was wrong with the file that was there
    qInfo() << "Creating a brand new Database";
    if (!m_database.open()) {
        qInfo() << "Error: connection with database fail";
        return false;
    }
    fillNewFile();
    m_database.close();
    return true;
}

/// Fills the open file when it holds no table, as a power cut or a full disk leaves it, and makes the release
/// check when it is due.
void ConfigDatabase::prepareFile()
{
    m_setupError = QSqlError();
    QSqlQuery query;
    const bool looked = query.exec(selectTablesStatement);
    if (!looked && cannotTellRelease(query)) {
        checkSetup(false, checkDatabaseReleaseSignature, query);
        finishSetup(false);
        return;
    }
    const bool isNew = looked && !query.next();
    query.finish();
    if (isNew) {
        if (!m_setupFailureLogged)
            qInfo() << "Creating a brand new Database";
        if (!fillNewFile())
            return; // migrating it would leave half of the tables
    }
    if (m_releaseCheckPending)
        checkDatabaseRelease();
    else
        finishSetup(true);
}

bool ConfigDatabase::fillNewFile()
{
    m_setupError = QSqlError();
    QSqlQuery query;
    const bool stored = query.exec(QStringLiteral("BEGIN IMMEDIATE")) && fillUnlessFilled(query)
        && query.exec(QStringLiteral("COMMIT"));
    if (!stored) {
        if (!m_setupError.isValid())
            m_setupError = query.lastError();
        query.exec(QStringLiteral("ROLLBACK"));
        if (!m_setupFailureLogged)
            qInfo() << "Database: fresh data could not be stored : " << m_setupError;
    }
    finishSetup(stored);
    return stored;
}

/// Looks again, now under the write lock: another program may just have filled the file.
bool ConfigDatabase::fillUnlessFilled(QSqlQuery &query)
{
    if (!query.exec(selectTablesStatement))
        return false;
    const bool isFilled = query.next();
    query.finish();
    if (isFilled)
        return true;
    if (!m_setupFailureLogged)
        qInfo() << "Database: connection ok : populating fresh data";
    // A statement that fails may have taken back all before it, and what followed would be kept alone.
    return initUartBlacklist() && initSystemConfiguration() && initAdapters() && initDataForwarder()
        && initPendingActions() && completeNewFile(query);
}

/// What keeps failing is tried again at every operation, and logged once.
void ConfigDatabase::finishSetup(bool succeeded)
{
    if (succeeded && m_setupFailureLogged)
        qInfo() << "Database: the file can be used now";
    m_setupFailureLogged = !succeeded;
}

bool ConfigDatabase::checkSetup(bool succeeded, const char *operation, const QSqlQuery &query)
{
    if (!succeeded && (!m_setupError.isValid() || endsTransaction(query.lastError())))
        m_setupError = query.lastError();
    return m_setupFailureLogged ? succeeded : checkStatement(succeeded, operation, query);
}

bool ConfigDatabase::createTable(const QString &statement, const char *operation)
{
    QSqlQuery query;
    query.prepare(statement);
    return checkSetup(executePrepared(query), operation, query);
}

bool ConfigDatabase::initUartBlacklist()
{
    bool succeeded =
        createTable(QStringLiteral("CREATE TABLE port_blacklist(ids integer primary key, port text);"),
            initUartBlacklistSignature);
    QSqlQuery query;
    const bool prepared = query.prepare(QStringLiteral("INSERT INTO port_blacklist (port) VALUES (:port)"));
    for (const QString &port : defaultBlacklist) {
        query.bindValue(QStringLiteral(":port"), port);
        succeeded &= checkSetup(prepared && query.exec(), initUartBlacklistSignature, query);
    }
    return succeeded;
}

bool ConfigDatabase::initSystemConfiguration()
{
    bool succeeded = createTable(
        QStringLiteral("CREATE TABLE system_configuration(ids integer primary key, name text, value text);"),
        initSystemConfigurationSignature);
    QSqlQuery query;
    const bool prepared = query.prepare(insertKeyStatement);
    for (const SystemKey &key : defaultKeys) {
        query.bindValue(QStringLiteral(":name"), key.name);
        query.bindValue(QStringLiteral(":value"), key.value);
        succeeded &= checkSetup(prepared && query.exec(), initSystemConfigurationSignature, query);
    }
    return succeeded;
}

bool ConfigDatabase::initAdapters()
{
    return createTable(
        QStringLiteral("CREATE TABLE radio_adapters(ids integer primary key, method text, port text, "
                       "name text, autobaud bool, tx_enabled bool, baudrate int, enabled bool, "
                       "discovered bool, status int, esn text);"),
        initAdaptersSignature);
}

bool ConfigDatabase::initDataForwarder()
{
    // The type of "context" is written "test" on purpose: SQLite takes any name, and tools compare the
    // schema.
    const bool created = createTable(
        QStringLiteral(
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
    return checkSetup(executePrepared(query), initDataForwarderSignature, query) && created;
}

bool ConfigDatabase::initPendingActions()
{
    return createTable(QStringLiteral("CREATE TABLE pending_actions(ids integer primary key, command text);"),
        initPendingActionsSignature);
}
