// A database file that the daemon finds at its start: any bytes, or tables whose columns, types and values
// are drawn from the input. Opened, migrated and read with every operation.

#include "config/ConfigDatabase.h"
#include "fuzz/FuzzSupport.h"

#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVariant>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

struct Table
{
    const char *name;
    std::initializer_list<const char *> columns;
};

const Table tables[] = {
    {"radio_adapters",
        {"ids", "method", "port", "name", "autobaud", "tx_enabled", "baudrate", "enabled", "discovered",
            "status", "esn"}},
    {"port_blacklist", {"ids", "port"}},
    {"system_configuration", {"ids", "name", "value"}},
    {"data_forwarder",
        {"ids", "type", "secret", "context", "comment", "target", "port", "enabled", "status"}},
    {"pending_actions", {"ids", "command"}},
};

const char *const types[] = {"integer primary key", "text", "int", "bool", "test", "blob", "",
    "text not null", "text unique", "real check(1)", "text collate nocase", "int default (random())"};

const char *const texts[] = {"bdd_release", "0.21.0", "1.0", "1.1", "2.0", "undefined",
    "forward_invalid_data", "owner_email", "owner_dept", "true", "GCP", "gcp", "RAW", "FILE", "127.0.0.1",
    "REBOOT", "DISP,x", "", "'", "%1", "-1", "9", "99999999999999999999", "pts/0"};

QVariant drawValue(FuzzedDataProvider &input)
{
    switch (input.ConsumeIntegralInRange(0, 5)) {
    case 0:
        return QVariant();
    case 1:
        return input.ConsumeIntegral<qint64>();
    case 2:
        return input.ConsumeFloatingPoint<double>();
    case 3:
        return QByteArray::fromStdString(input.ConsumeRandomLengthString(40));
    case 4:
        return QString::fromStdString(input.ConsumeRandomLengthString(40));
    default:
        return QString::fromLatin1(input.PickValueInArray(texts));
    }
}

void fill(QSqlDatabase &database, const QString &table, int columns, FuzzedDataProvider &input)
{
    QStringList marks;
    for (int column = 0; column < columns; ++column)
        marks.append(QStringLiteral("?"));
    for (int row = input.ConsumeIntegralInRange(0, 4); row > 0; --row) {
        QSqlQuery query(database);
        query.prepare(QStringLiteral("INSERT INTO %1 VALUES (%2)").arg(table, marks.join(QLatin1Char(','))));
        for (int column = 0; column < columns; ++column)
            query.addBindValue(drawValue(input));
        query.exec();
    }
}

/// Tables as an older or a stranger's program may have left them.
void writeDrawnSchema(const QString &path, FuzzedDataProvider &input)
{
    const QString name = QStringLiteral("drawn");
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        database.setDatabaseName(path);
        database.open();
        for (const Table &table : tables) {
            QStringList columns;
            for (const char *column : table.columns) {
                if (input.ConsumeIntegralInRange(0, 7) != 0) {
                    columns.append(QStringLiteral("%1 %2").arg(
                        QLatin1String(column), QLatin1String(input.PickValueInArray(types))));
                }
            }
            const QString tableName = QLatin1String(table.name);
            const bool created = !columns.isEmpty()
                && QSqlQuery(database).exec(
                    QStringLiteral("CREATE TABLE %1(%2)").arg(tableName, columns.join(QLatin1Char(','))));
            if (created)
                fill(database, tableName, columns.size(), input);
        }
    }
    QSqlDatabase::removeDatabase(name);
}

class Store : public ConfigDatabase
{
public:
    explicit Store(const QString &path) : ConfigDatabase(path) { }
};

void useEverything(Store &store)
{
    store.getSystemConfigurationValue(QStringLiteral("bdd_release"));
    store.getPortBlacklist();
    const auto adapters = store.getRadioAdapters();
    for (const auto &adapter : adapters) {
        require(adapter->status >= 0 && adapter->status <= 2, "an adapter's status is 0, 1 or 2");
        store.updateDiscoveredAdapter(adapter);
    }
    store.addDiscoveredAdapter(QSharedPointer<RadioAdapterConfig>::create());
    const auto forwarders = store.getDataForwarders();
    for (const DataForwarderConfig &forwarder : forwarders) {
        require(forwarder.status >= 0 && forwarder.status <= 4, "a forwarder's status is 0 to 4");
        store.getForwarderConfiguration(forwarder.ids);
        store.updateForwarderStatus(forwarder.ids, DataForwarderConfig::Working);
    }
    if (store.hasPendingActions())
        store.getFirstPendingActions();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const FuzzEnvironment environment;
    const QString path = environment.file(QStringLiteral("q.sqlite"));
    QFile::remove(path);
    QFile::remove(path + QStringLiteral("-journal"));
    FuzzedDataProvider input(data, size);
    if (size > 16 && std::equal(data, data + 6, "SQLite")) {
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        file.write(reinterpret_cast<const char *>(data), qint64(size));
    } else {
        writeDrawnSchema(path, input);
    }
    for (int start = 0; start < 2; ++start) { // a second start finds what the first one left
        Store store(path);
        useEverything(store);
    }
    return 0;
}
