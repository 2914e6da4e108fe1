#include "config/ConfigDatabase.h"

#include "config/ConfigKeys.h"
#include "config/SqlStatement.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFileInfo>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QVariant>

#include <sqlite3.h>

namespace {

/// One thread alone uses SQLite, and nobody asks for its memory statistics: guarding both costs a fifth of
/// every operation. Without effect once SQLite is in use.
void setUpSqlite()
{
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

QSqlDatabase addDatabase()
{
    setUpSqlite();
    return QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"));
}

RadioAdapterConfig::Status toAdapterStatus(int stored)
{
    return stored == 0 || stored == 1 ? RadioAdapterConfig::Status(stored) : RadioAdapterConfig::Stopped;
}

DataForwarderConfig::ForwarderStatus toForwarderStatus(int stored)
{
    return unsigned(stored) < 4U ? DataForwarderConfig::ForwarderStatus(stored) : DataForwarderConfig::Failed;
}

void bindAdapter(QSqlQuery &query, const RadioAdapterConfig &config)
{
    query.bindValue(QStringLiteral(":method"), config.method);
    query.bindValue(QStringLiteral(":port"), config.port);
    query.bindValue(QStringLiteral(":name"), config.name);
    query.bindValue(QStringLiteral(":autobaud"), config.autobaud);
    query.bindValue(QStringLiteral(":tx"), config.tx_enabled);
    query.bindValue(QStringLiteral(":baudrate"), config.baudrate);
    query.bindValue(QStringLiteral(":enabled"), config.enabled);
    query.bindValue(QStringLiteral(":discovered"), config.discovered);
    query.bindValue(QStringLiteral(":status"), int(config.status));
    query.bindValue(QStringLiteral(":esn"), config.esn);
}

/// Reads data_forwarder rows; the columns are looked up by name once per query.
class ForwarderReader
{
public:
    explicit ForwarderReader(const QSqlQuery &query)
        : m_query(query), m_record(query.record()), m_ids(column("ids")), m_type(column("type")),
          m_comment(column("comment")), m_secret(column("secret")), m_context(column("context")),
          m_target(column("target")), m_port(column("port")), m_enabled(column("enabled")),
          m_status(column("status"))
    {
    }

    DataForwarderConfig current() const
    {
        DataForwarderConfig config;
        config.ids = m_query.value(m_ids).toInt();
        config.type = m_query.value(m_type).toString().toUpper();
        config.comment = m_query.value(m_comment).toString();
        config.secret = m_query.value(m_secret).toString();
        config.context = m_query.value(m_context).toString();
        config.target = m_query.value(m_target).toString();
        config.port = m_query.value(m_port).toInt();
        config.enabled = m_query.value(m_enabled).toBool();
        config.status = toForwarderStatus(m_query.value(m_status).toInt());
        return config;
    }

private:
    int column(const char *name) const { return m_record.indexOf(QLatin1String(name)); }

    const QSqlQuery &m_query;
    const QSqlRecord m_record;
    const int m_ids, m_type, m_comment, m_secret, m_context, m_target, m_port, m_enabled, m_status;
};

bool isEmptyFile(const QString &path)
{
    const QFileInfo file(path);
    return file.isFile() && file.size() == 0;
}

} // namespace

/// Keeps the database open for the length of one operation.
class ConfigDatabase::Session
{
public:
    explicit Session(ConfigDatabase *database) : m_database(database) { m_database->openDatabase(); }
    ~Session() { m_database->closeDatabase(); }
    Q_DISABLE_COPY(Session)

private:
    ConfigDatabase *const m_database;
};

ConfigDatabase *ConfigDatabase::s_instance = nullptr;

ConfigDatabase *ConfigDatabase::getInstance(const QString &path)
{
    if (!s_instance)
        s_instance = new ConfigDatabase(path); // lives until the process ends
    return s_instance;
}

ConfigDatabase *ConfigDatabase::getInstance()
{
    return getInstance(defaultPath());
}

QString ConfigDatabase::defaultPath()
{
    return QStringLiteral("/tmp/ostraForwarder.sqlite");
}

ConfigDatabase::ConfigDatabase(const QString &path, StatusReset reset)
    : m_database(addDatabase()), m_path(path)
{
    if (!m_database.isValid()) {
        qInfo() << "Sqlite driver not loaded - exiting.";
        // Before the event loop runs this has no effect; construction goes on, on purpose.
        QCoreApplication::exit(0);
    }
    m_database.setDatabaseName(m_path);
    if (reset == KeepStatuses)
        return;
    resetAdapters();
    resetForwarders();
}

void ConfigDatabase::openDatabase()
{
    if (!QFileInfo::exists(m_path))
        createDatabase();
    if (!m_database.open()) {
        qInfo() << "Error: connection with database fail";
        QCoreApplication::exit(-1);
    }
    // To look inside at every operation would cost each of them a statement.
    if (m_database.isOpen() && (m_releaseCheckPending || m_setupFailureLogged || isEmptyFile(m_path)))
        prepareFile();
}

void ConfigDatabase::closeDatabase()
{
    m_database.close();
}

void ConfigDatabase::noteRead(const QSqlQuery &query)
{
    const QSqlError error = query.lastError();
    m_lastReadFailed = error.isValid() && (m_setupFailureLogged || primaryResultCode(error) != SQLITE_ERROR);
}

void ConfigDatabase::addDiscoveredAdapter(QSharedPointer<RadioAdapterConfig> config)
{
    const Session session(this);
    QSqlQuery query;
    query.prepare(QStringLiteral("INSERT INTO radio_adapters (method, port, name, autobaud, tx_enabled, "
                                 "baudrate, enabled, discovered, status, esn) VALUES (:method, :port, :name, "
                                 ":autobaud, :tx, :baudrate, :enabled, :discovered, :status, :esn);"));
    bindAdapter(query, *config);
    if (checkStatement(executePrepared(query),
            "void ConfigDatabase::addDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)", query))
        config->ids = query.lastInsertId().toInt();
}

void ConfigDatabase::updateDiscoveredAdapter(QSharedPointer<RadioAdapterConfig> config)
{
    const Session session(this);
    QSqlQuery query;
    query.prepare(QStringLiteral("UPDATE radio_adapters SET method=:method, port=:port, name=:name, "
                                 "autobaud=:autobaud, tx_enabled=:tx, baudrate=:baudrate, enabled=:enabled, "
                                 "discovered=:discovered, status=:status, esn=:esn WHERE ids=:id"));
    bindAdapter(query, *config);
    query.bindValue(QStringLiteral(":id"), config->ids);
    checkStatement(executePrepared(query),
        "void ConfigDatabase::updateDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>)", query);
}

void ConfigDatabase::resetAdapters()
{
    const Session session(this);
    QSqlQuery query;
    query.prepare(QStringLiteral("UPDATE radio_adapters SET status=:status"));
    query.bindValue(QStringLiteral(":status"), int(RadioAdapterConfig::Idle));
    checkStatement(executePrepared(query), "void ConfigDatabase::resetAdapters()", query);
}

QList<QSharedPointer<RadioAdapterConfig>> ConfigDatabase::getRadioAdapters()
{
    const Session session(this);
    QList<QSharedPointer<RadioAdapterConfig>> adapters;
    QSqlQuery query;
    query.exec(QStringLiteral("SELECT * FROM radio_adapters"));
    const QSqlRecord record = query.record();
    const int ids = record.indexOf(QStringLiteral("ids"));
    const int method = record.indexOf(QStringLiteral("method"));
    const int port = record.indexOf(QStringLiteral("port"));
    const int name = record.indexOf(QStringLiteral("name"));
    const int autobaud = record.indexOf(QStringLiteral("autobaud"));
    const int txEnabled = record.indexOf(QStringLiteral("tx_enabled"));
    const int baudrate = record.indexOf(QStringLiteral("baudrate"));
    const int discovered = record.indexOf(QStringLiteral("discovered"));
    const int enabled = record.indexOf(QStringLiteral("enabled"));
    const int status = record.indexOf(QStringLiteral("status"));
    const int esn = record.indexOf(QStringLiteral("esn"));
    while (query.next()) {
        const auto config = QSharedPointer<RadioAdapterConfig>::create();
        config->ids = query.value(ids).toInt();
        config->method = query.value(method).toString();
        config->port = query.value(port).toString();
        config->name = query.value(name).toString();
        config->autobaud = query.value(autobaud).toBool();
        config->tx_enabled = query.value(txEnabled).toBool();
        config->baudrate = query.value(baudrate).toInt();
        config->enabled = query.value(enabled).toBool();
        config->discovered = query.value(discovered).toBool();
        config->status = toAdapterStatus(query.value(status).toInt());
        config->esn = query.value(esn).toString();
        adapters.append(config);
    }
    noteRead(query);
    return adapters;
}

QStringList ConfigDatabase::getPortBlacklist()
{
    const Session session(this);
    QStringList ports;
    QSqlQuery query;
    query.exec(QStringLiteral("SELECT * FROM port_blacklist"));
    const int port = query.record().indexOf(QStringLiteral("port"));
    while (query.next())
        ports.append(query.value(port).toString());
    noteRead(query);
    return ports;
}

QList<DataForwarderConfig> ConfigDatabase::getDataForwarders()
{
    const Session session(this);
    QList<DataForwarderConfig> forwarders;
    QSqlQuery query;
    query.exec(QStringLiteral("SELECT * FROM data_forwarder"));
    const ForwarderReader reader(query);
    while (query.next())
        forwarders.append(reader.current());
    noteRead(query);
    return forwarders;
}

DataForwarderConfig ConfigDatabase::getForwarderConfiguration(int id)
{
    const Session session(this);
    DataForwarderConfig config;
    QSqlQuery query;
    query.exec(QStringLiteral("SELECT * FROM data_forwarder WHERE ids LIKE %1").arg(id));
    const ForwarderReader reader(query);
    bool found = false;
    while (query.next()) {
        config = reader.current();
        config.ids = id;
        found = true;
    }
    if (!found) {
        qInfo() << "An error has been detected:  looking for configuration for forwarder id=" << id
                << " but not found in database";
    }
    return config;
}

void ConfigDatabase::updateForwarderStatus(int id, DataForwarderConfig::ForwarderStatus status)
{
    const Session session(this);
    QSqlQuery query;
    // Who keeps the file locked is waited for once, not with each frame.
    if (m_unwrittenStatus.value(id, -1) == status)
        query.exec(QStringLiteral("PRAGMA busy_timeout = 50"));
    const QString statement = QStringLiteral("UPDATE data_forwarder SET status='") + QString::number(status)
        + QStringLiteral("'") + QStringLiteral(" WHERE ids LIKE '") + QString::number(id)
        + QStringLiteral("'");
    m_lastStatusFailed = !checkStatement(query.exec(statement),
        "void ConfigDatabase::updateForwarderStatus(int, DataForwarderConfig::ForwarderStatus)", query);
    if (m_lastStatusFailed)
        m_unwrittenStatus.insert(id, status);
    else
        m_unwrittenStatus.remove(id);
}

void ConfigDatabase::resetForwarders()
{
    const QList<DataForwarderConfig> forwarders = getDataForwarders();
    for (const DataForwarderConfig &forwarder : forwarders)
        updateForwarderStatus(forwarder.ids, DataForwarderConfig::Idle);
}

QString ConfigDatabase::getSystemConfigurationValue(const QString &name)
{
    const Session session(this);
    QSqlQuery query;
    query.prepare(QStringLiteral("SELECT * FROM system_configuration WHERE name=:name LIMIT 1"));
    query.bindValue(QStringLiteral(":name"), name);
    const bool found = executePrepared(query) && query.next();
    noteRead(query);
    return found ? query.value(QStringLiteral("value")).toString() : UNDEFINED_VALUE;
}

bool ConfigDatabase::hasPendingActions()
{
    const Session session(this);
    QSqlQuery query;
    return query.exec(QStringLiteral("SELECT * FROM pending_actions")) && query.next();
}

QString ConfigDatabase::getFirstPendingActions()
{
    const Session session(this);
    QSqlQuery query;
    if (!query.exec(QStringLiteral("SELECT * FROM pending_actions")) || !query.next())
        return QString();
    QString command = query.value(QStringLiteral("command")).toString().toUpper();
    const int id = query.value(QStringLiteral("ids")).toInt();

    QSqlQuery removal;
    removal.prepare(QStringLiteral("DELETE FROM pending_actions WHERE ids = (:id) LIMIT 1"));
    removal.bindValue(QStringLiteral(":id"), id);
    checkStatement(executePrepared(removal), "QString ConfigDatabase::getFirstPendingActions()", removal);
    return command;
}
