#pragma once

#include "config/DataForwarderConfig.h"
#include "config/RadioAdapterConfig.h"

#include <QHash>
#include <QList>
#include <QSharedPointer>
#include <QSqlDatabase>
#include <QSqlError>
#include <QString>
#include <QStringList>

class QSqlQuery;

/// The configuration store: one SQLite file that holds every setting and every live status.
/// Each operation opens the file, runs its statements and closes it again, so that outside tools may edit it
/// at any time. A statement that fails is logged where an operation says so and otherwise yields the empty
/// result; nothing is thrown.
class ConfigDatabase
{
public:
    /// The process-wide instance, made on the file `path` by the first call; later calls ignore `path`.
    static ConfigDatabase *getInstance(const QString &path);
    /// The process-wide instance, made on the default file when there is none yet.
    static ConfigDatabase *getInstance();
    static QString defaultPath();

    ConfigDatabase(const ConfigDatabase &) = delete;
    ConfigDatabase &operator=(const ConfigDatabase &) = delete;

    // Connection and schema

    /// The path of the file.
    QString path() const { return m_path; }
    /// Whether the latest read of rows or of a value failed, as it does while another program keeps the file
    /// locked: its empty result then says nothing of the file. A table that is missing counts as empty,
    /// unless the file could not be filled.
    bool lastReadFailed() const { return m_lastReadFailed; }
    /// Opens the file, made anew when it is missing or holds no table; the first call that can also migrates
    /// an older schema. A file that cannot be opened is logged, and the event loop is told to end with code
    /// -1.
    void openDatabase();
    void closeDatabase();
    /// Makes and fills a new file, as a whole or not at all; false when it cannot be opened.
    bool createDatabase();
    // Each makes one table with its default rows; false when a statement failed.
    bool initUartBlacklist();
    bool initSystemConfiguration();
    bool initAdapters();
    bool initDataForwarder();
    bool initPendingActions();
    /// Compares the file's release with the current one and migrates what is older, as a whole or not at all;
    /// stays due while the file is locked or the disk fails.
    void checkDatabaseRelease();
    /// Stamps the file with the current release; false when the file is locked or the disk fails.
    bool updateSchemaVersion();

    // Radio adapters

    /// Inserts a row and stores its id in `config`; on failure logs and leaves the id as it was.
    void addDiscoveredAdapter(QSharedPointer<RadioAdapterConfig> config);
    /// Writes every field of `config` to the row with its id.
    void updateDiscoveredAdapter(QSharedPointer<RadioAdapterConfig> config);
    void resetAdapters();
    QList<QSharedPointer<RadioAdapterConfig>> getRadioAdapters();
    /// Names of the ports that must never be opened.
    QStringList getPortBlacklist();

    // Data forwarders

    /// All rows, disabled ones too.
    QList<DataForwarderConfig> getDataForwarders();
    /// The row with this id; logs and returns the default record when there is none.
    DataForwarderConfig getForwarderConfiguration(int id);
    void updateForwarderStatus(int id, DataForwarderConfig::ForwarderStatus status);
    /// Whether the last such update could not be written.
    bool lastStatusFailed() const { return m_lastStatusFailed; }
    void resetForwarders();

    // System configuration and pending actions

    /// The value of a key as stored, or "undefined" when the key is missing.
    QString getSystemConfigurationValue(const QString &name);
    bool hasPendingActions();
    /// Takes the first action off the table and returns its command in capitals; empty when there is none.
    QString getFirstPendingActions();

protected:
    enum StatusReset {
        ResetStatuses,
        KeepStatuses,
    };

    explicit ConfigDatabase(const QString &path, StatusReset reset = ResetStatuses);
    ~ConfigDatabase() = default;

    /// What a derived class changes in a new file before anyone sees it, with a query whose error is
    /// reported. On false nothing of the file stays.
    virtual bool completeNewFile(QSqlQuery &) { return true; }
    /// Why the file could not be filled or its release not be read; invalid when both went well.
    QSqlError setupError() const { return m_setupError; }

private:
    class Session;

    void noteRead(const QSqlQuery &query);
    void prepareFile();
    bool fillNewFile();
    bool fillUnlessFilled(QSqlQuery &query);
    void finishSetup(bool succeeded);
    bool checkSetup(bool succeeded, const char *operation, const QSqlQuery &query);
    bool createTable(const QString &statement, const char *operation);

    bool readRelease(QSqlQuery &query, QString *release);
    bool migrate(QSqlQuery &query);
    // Each tells whether the migration may go on: it does after an error of the statement's own, such as a
    // table that is missing, and is taken back where the file is locked or the disk fails.
    bool migrateUnlessMigrated(QSqlQuery &query);
    bool migrateFromOldest(QSqlQuery &query);
    bool migrateFromRelease10(QSqlQuery &query);
    bool createKeys();
    bool insertMissingKey(
        QSqlQuery &query, const QString &key, const QString &value, const QString &insertedText);
    bool addMissingColumn(
        QSqlQuery &query, const QString &probe, const QString &alteration, const QString &insertedText);
    bool insertMissingCloudForwarder(QSqlQuery &query);
    bool mayGoOn(bool succeeded, const char *operation, const QSqlQuery &query);

    static ConfigDatabase *s_instance;

    QSqlDatabase m_database;
    QString m_path;
    bool m_lastReadFailed = false;
    bool m_lastStatusFailed = false;
    QHash<int, int> m_unwrittenStatus; // by the output's id
    bool m_releaseCheckPending = true;
    QSqlError m_setupError;
    bool m_setupFailureLogged = false;
    QStringList m_migrationLines; // logged when all of it is stored
};
