#include "config/ConfigDatabase.h"

#include "config/ConfigKeys.h"
#include "config/SchemaStatements.h"
#include "config/SqlStatement.h"

#include <QDebug>
#include <QSqlQuery>
#include <QVariant>

namespace {

const char *const updateSchemaVersionSignature = "void ConfigDatabase::updateSchemaVersion()";

const QString selectKeyStatement =
    QStringLiteral("SELECT * FROM system_configuration WHERE name=:name LIMIT 1");
const QString selectAllKeysStatement = QStringLiteral("SELECT * FROM system_configuration");

bool lookUpKey(QSqlQuery &query, const QString &key)
{
    query.clear();
    query.prepare(selectKeyStatement);
    query.bindValue(QStringLiteral(":name"), key);
    return executePrepared(query);
}

bool isOlder(const QString &release)
{
    return release == UNDEFINED_VALUE || release == QLatin1String("0.21.0")
        || release == QLatin1String("1.0");
}

bool execute(QSqlQuery &query, const QString &statement)
{
    query.clear();
    return query.exec(statement);
}

} // namespace

void ConfigDatabase::checkDatabaseRelease()
{
    QSqlQuery query;
    QString release;
    m_migrationLines.clear();
    // Any other release is newer or unknown and stays as it is, without a lock that its disk may not allow.
    const bool checked = readRelease(query, &release) && (!isOlder(release) || migrate(query));
    m_releaseCheckPending = !checked;
    finishSetup(checked);
    if (!checked || release == BDD_RELEASE_VALUE)
        return;
    qInfo() << "Old database schema detected : " << release << " - should be " << BDD_RELEASE_VALUE;
    for (const QString &line : qAsConst(m_migrationLines))
        qInfo().noquote() << line;
}

bool ConfigDatabase::readRelease(QSqlQuery &query, QString *release)
{
    const bool found = lookUpKey(query, BDD_RELEASE_KEY);
    if (!checkSetup(found, checkDatabaseReleaseSignature, query) && cannotTellRelease(query))
        return false; // migrating a current file would cost its outputs
    *release = query.next() ? query.value(QStringLiteral("value")).toString() : UNDEFINED_VALUE;
    query.finish();
    return true;
}

/// A power cut must not leave half of it, and another program's lock not leave out a step.
bool ConfigDatabase::migrate(QSqlQuery &query)
{
    if (!checkSetup(execute(query, QStringLiteral("BEGIN IMMEDIATE")), checkDatabaseReleaseSignature, query))
        return false;
    if (migrateUnlessMigrated(query)
        && checkSetup(execute(query, QStringLiteral("COMMIT")), checkDatabaseReleaseSignature, query))
        return true;
    execute(query, QStringLiteral("ROLLBACK"));
    return false;
}

/// Looks again, now under the write lock: another program may just have migrated the file.
bool ConfigDatabase::migrateUnlessMigrated(QSqlQuery &query)
{
    QString release;
    if (!readRelease(query, &release))
        return false;
    if (!isOlder(release))
        return true;
    return release == QLatin1String("1.0") ? migrateFromRelease10(query) : migrateFromOldest(query);
}

bool ConfigDatabase::migrateFromOldest(QSqlQuery &query)
{
    // forward_invalid_data is not added here, on purpose: it then reads as "undefined".
    const bool hasKeys = execute(query, selectAllKeysStatement)
        ? insertMissingKey(query, OWNER_EMAIL_KEY, UNDEFINED_VALUE,
              QStringLiteral("OWNER_EMAIL_KEY not found - inserted."))
            && insertMissingKey(query, OWNER_DEPT_KEY, UNDEFINED_VALUE,
                QStringLiteral("OWNER_DEPT_KEY not found - inserted."))
            && insertMissingKey(query, BDD_RELEASE_KEY, UNDEFINED_VALUE,
                QStringLiteral("BDD_RELEASE_KEY not found - inserted."))
        : createKeys();
    if (!hasKeys
        || !addMissingColumn(query, QStringLiteral("SELECT esn FROM radio_adapters"),
            QStringLiteral("ALTER TABLE radio_adapters ADD COLUMN esn TEXT"),
            QStringLiteral("ESN column does not exists - inserted"))
        || !addMissingColumn(query, QStringLiteral("SELECT secret FROM data_forwarder"),
            QStringLiteral("ALTER TABLE data_forwarder ADD COLUMN secret TEXT"),
            QStringLiteral("SECRET column does not exists - inserted"))
        || !addMissingColumn(query, QStringLiteral("SELECT context FROM data_forwarder"),
            QStringLiteral("ALTER TABLE data_forwarder ADD COLUMN context TEXT"),
            QStringLiteral("CONTEXT column does not exists - inserted")))
        return false;
    // Outputs of the oldest layout other than the cloud are discarded, on purpose.
    const bool discarded = execute(query, QStringLiteral("DELETE FROM data_forwarder WHERE type <> 'GCP'"));
    return mayGoOn(discarded, checkDatabaseReleaseSignature, query) && insertMissingCloudForwarder(query)
        && updateSchemaVersion();
}

bool ConfigDatabase::migrateFromRelease10(QSqlQuery &query)
{
    const bool hasKeys = execute(query, selectAllKeysStatement)
        ? insertMissingKey(query, FORWARD_INVALID_DATA_KEY, QStringLiteral("false"),
            QStringLiteral("FORWARD_INVALID_DATA_KEY not found - inserted."))
        : createKeys();
    return hasKeys && updateSchemaVersion();
}

bool ConfigDatabase::createKeys()
{
    m_migrationLines.append(
        QStringLiteral("Table system_configuration does not exists - creating a new one."));
    return initSystemConfiguration() || !endsTransaction(m_setupError);
}

bool ConfigDatabase::insertMissingKey(
    QSqlQuery &query, const QString &key, const QString &value, const QString &insertedText)
{
    const bool lookedUp = lookUpKey(query, key);
    if (!lookedUp || query.next())
        return mayGoOn(lookedUp, checkDatabaseReleaseSignature, query);
    query.clear();
    query.prepare(insertKeyStatement);
    query.bindValue(QStringLiteral(":name"), key);
    query.bindValue(QStringLiteral(":value"), value);
    const bool inserted = executePrepared(query);
    if (inserted)
        m_migrationLines.append(insertedText);
    return mayGoOn(inserted, checkDatabaseReleaseSignature, query);
}

bool ConfigDatabase::addMissingColumn(
    QSqlQuery &query, const QString &probe, const QString &alteration, const QString &insertedText)
{
    if (execute(query, probe))
        return true;
    const bool altered = execute(query, alteration);
    if (altered)
        m_migrationLines.append(insertedText);
    return mayGoOn(altered, checkDatabaseReleaseSignature, query);
}

bool ConfigDatabase::insertMissingCloudForwarder(QSqlQuery &query)
{
    const bool counted =
        execute(query, QStringLiteral("SELECT COUNT(*) AS RES FROM data_forwarder WHERE type == 'GCP'"));
    if (!counted)
        return mayGoOn(false, checkDatabaseReleaseSignature, query);
    query.next();
    if (query.value(0).toInt() != 0)
        return true;
    m_migrationLines.append(QStringLiteral("Np GCP configuration found - defaulting.")); // so on purpose
    return initDataForwarder() || !endsTransaction(m_setupError);
}

bool ConfigDatabase::updateSchemaVersion()
{
    QSqlQuery query;
    query.prepare(QStringLiteral("UPDATE system_configuration SET value=:value WHERE name LIKE :name"));
    query.bindValue(QStringLiteral(":name"), BDD_RELEASE_KEY);
    query.bindValue(QStringLiteral(":value"), BDD_RELEASE_VALUE);
    const bool updated = executePrepared(query);
    if (updated) {
        m_migrationLines.append(
            QStringLiteral("Update BDD schema and default conf to  :  \"%1\"").arg(BDD_RELEASE_VALUE));
    }
    return mayGoOn(updated, updateSchemaVersionSignature, query);
}

bool ConfigDatabase::mayGoOn(bool succeeded, const char *operation, const QSqlQuery &query)
{
    if (succeeded)
        return true;
    if (endsTransaction(query.lastError()))
        return checkSetup(false, operation, query);
    if (!m_setupFailureLogged)
        checkStatement(false, operation, query);
    return true;
}
