#include "tools/quillonctl/Listing.h"

#include "config/ConfigKeys.h"
#include "config/DataForwarderConfig.h"
#include "config/RadioAdapterConfig.h"
#include "forwarders/CloudRequests.h"
#include "forwarders/OutboxFiles.h"
#include "forwarders/RadioModels.h"
#include "tools/quillonctl/OutboxFile.h"

namespace {

enum Subject {
    Radio,
    Listener, ///< a radio that is never sent anything, so that it cannot be identified
    Output,
};

struct StateWord
{
    Subject subject;
    int status;
    QString word;
    QString colour;
};

/// What the status columns mean, in words. The last entry of a subject stands for every other number too.
const StateWord stateWords[] = {
    {Radio, RadioAdapterConfig::Idle, QStringLiteral("not identified"), QStringLiteral("33")},
    {Radio, RadioAdapterConfig::Identified, QStringLiteral("identified, working"), QStringLiteral("32")},
    {Radio, RadioAdapterConfig::Stopped, QStringLiteral("stopped, no answer"), QStringLiteral("31")},
    {Listener, RadioAdapterConfig::Idle, QStringLiteral("listen only"), QString()},
    {Listener, RadioAdapterConfig::Identified, QStringLiteral("listen only"), QString()},
    {Listener, RadioAdapterConfig::Stopped, QStringLiteral("stopped"), QStringLiteral("31")},
    {Output, DataForwarderConfig::Idle, QStringLiteral("not running"), QStringLiteral("33")},
    {Output, DataForwarderConfig::Reserved1, QStringLiteral("unknown (1)"), QStringLiteral("33")},
    {Output, DataForwarderConfig::Reserved2, QStringLiteral("unknown (2)"), QStringLiteral("33")},
    {Output, DataForwarderConfig::Working, QStringLiteral("working"), QStringLiteral("32")},
    {Output, DataForwarderConfig::Failed, QStringLiteral("failed"), QStringLiteral("31")},
};

constexpr int outboxTimeoutMs = 500; // a listing rather lacks an outbox than waits for it

const QString disabledColour = QStringLiteral("2");

const StateWord &stateOf(Subject subject, int status)
{
    const StateWord *result = nullptr;
    for (const StateWord &state : stateWords) {
        if (state.subject != subject)
            continue;
        result = &state;
        if (state.status == status)
            break;
    }
    return *result;
}

/// What is disabled may still run: the daemon looks at the flag only when it starts a port or an output.
QString stateText(Subject subject, const QSqlRecord &record)
{
    const int status = record.value(QStringLiteral("status")).toInt();
    QString word = stateOf(subject, status).word;
    if (record.value(QStringLiteral("enabled")).toBool())
        return word;
    return status == 0 ? QStringLiteral("disabled") : QStringLiteral("disabled (last: %1)").arg(word);
}

QString stateColour(Subject subject, const QJsonObject &row)
{
    if (!row.value(QStringLiteral("enabled")).toBool())
        return disabledColour;
    return stateOf(subject, row.value(QStringLiteral("status")).toInt()).colour;
}

QString radioColour(const QJsonObject &row)
{
    return stateColour(row.value(QStringLiteral("listenOnly")).toBool() ? Listener : Radio, row);
}

QString outputColour(const QJsonObject &row)
{
    return stateColour(Output, row);
}

QString targetText(const QString &kind, const QString &target, int port)
{
    const bool isTcpStream = kind == QLatin1String("STREAM") && !target.startsWith(QLatin1Char('/'));
    if (kind == QLatin1String("RAW") || kind == QLatin1String("ERAW") || isTcpStream)
        return hostAndPort(target, port);
    if ((kind == QLatin1String("GCP") || kind == QLatin1String("PUBSUB")) && !namesEndpoint(target))
        return QStringLiteral("Google Cloud Pub/Sub");
    return target;
}

QJsonObject radioRow(const QSqlRecord &record)
{
    const auto text = [&](const QString &column) { return record.value(column).toString(); };
    const QString esn = text(QStringLiteral("esn"));
    const bool autobaud = record.value(QStringLiteral("autobaud")).toBool();
    const int baudrate = record.value(QStringLiteral("baudrate")).toInt();
    const bool listenOnly = !record.value(QStringLiteral("tx_enabled")).toBool();
    return {
        {QStringLiteral("id"), record.value(QStringLiteral("ids")).toInt()},
        {QStringLiteral("port"), text(QStringLiteral("port"))},
        {QStringLiteral("name"), text(QStringLiteral("name"))},
        {QStringLiteral("esn"), esn},
        {QStringLiteral("model"), esn.isEmpty() ? QString() : getRadioModel(esn)},
        {QStringLiteral("band"), esn.isEmpty() ? QString() : getRadioBand(esn)},
        {QStringLiteral("speed"),
            autobaud ? QStringLiteral("automatic") : QStringLiteral("%1 bit/s").arg(baudrate)},
        {QStringLiteral("listenOnly"), listenOnly},
        {QStringLiteral("enabled"), record.value(QStringLiteral("enabled")).toBool()},
        {QStringLiteral("method"), text(QStringLiteral("method"))},
        {QStringLiteral("status"), record.value(QStringLiteral("status")).toInt()},
        {QStringLiteral("state"), stateText(listenOnly ? Listener : Radio, record)},
    };
}

QJsonObject outputRow(const QSqlRecord &record)
{
    const QString kind = record.value(QStringLiteral("type")).toString().toUpper();
    return {
        {QStringLiteral("id"), record.value(QStringLiteral("ids")).toInt()},
        {QStringLiteral("kind"), kind},
        {QStringLiteral("target"),
            targetText(kind, record.value(QStringLiteral("target")).toString(),
                record.value(QStringLiteral("port")).toInt())},
        {QStringLiteral("topic"), record.value(QStringLiteral("context")).toString()},
        {QStringLiteral("comment"), record.value(QStringLiteral("comment")).toString()},
        {QStringLiteral("enabled"), record.value(QStringLiteral("enabled")).toBool()},
        {QStringLiteral("status"), record.value(QStringLiteral("status")).toInt()},
        {QStringLiteral("state"), stateText(Output, record)},
    };
}

} // namespace

QJsonArray radioRows(const ConfigFile &file)
{
    QJsonArray result;
    for (const QSqlRecord &record : file.rows(QStringLiteral("radio_adapters")))
        result.append(radioRow(record));
    return result;
}

QJsonArray outputRows(const ConfigFile &file)
{
    QJsonArray result;
    for (const QSqlRecord &record : file.rows(QStringLiteral("data_forwarder"))) {
        QJsonObject row = outputRow(record);
        if (row.value(QStringLiteral("kind")).toString() == QLatin1String("PUBSUB"))
            row[QStringLiteral("outbox")] = outboxCounts(
                outboxPath(file.path(), row.value(QStringLiteral("id")).toInt()), outboxTimeoutMs);
        result.append(row);
    }
    return result;
}

QJsonArray pendingRows(const ConfigFile &file)
{
    QJsonArray result;
    for (const QSqlRecord &record : file.rows(QStringLiteral("pending_actions")))
        result.append(QJsonObject{
            {QStringLiteral("id"), record.value(QStringLiteral("ids")).toInt()},
            {QStringLiteral("command"), record.value(QStringLiteral("command")).toString()},
        });
    return result;
}

QStringList blockedPorts(const ConfigFile &file)
{
    QStringList ports;
    for (const QSqlRecord &record : file.rows(QStringLiteral("port_blacklist")))
        ports.append(record.value(QStringLiteral("port")).toString());
    return ports;
}

bool isDeaf(const ConfigFile &file, const QSqlRecord &radio)
{
    return !radio.value(QStringLiteral("tx_enabled")).toBool()
        && radio.value(QStringLiteral("autobaud")).toBool()
        && systemValue(file, FORWARD_INVALID_DATA_KEY) != QLatin1String("true");
}

QString systemValue(const ConfigFile &file, const QString &key)
{
    for (const QSqlRecord &record : file.rows(QStringLiteral("system_configuration"))) {
        if (record.value(QStringLiteral("name")).toString() == key)
            return record.value(QStringLiteral("value")).toString();
    }
    return UNDEFINED_VALUE;
}

bool migrationRemovesOutputs(const QString &release)
{
    return release == UNDEFINED_VALUE || release == QLatin1String("0.21.0");
}

void printRadios(const QJsonArray &radios, bool withSettings)
{
    QVector<Column> columns{
        {QStringLiteral("id"), QStringLiteral("ID")},
        {QStringLiteral("port"), QStringLiteral("PORT")},
        {QStringLiteral("name"), QStringLiteral("NAME")},
        {QStringLiteral("esn"), QStringLiteral("ESN")},
        {QStringLiteral("model"), QStringLiteral("MODEL")},
        {QStringLiteral("band"), QStringLiteral("BAND")},
        {QStringLiteral("speed"), QStringLiteral("SPEED")},
    };
    if (withSettings)
        columns += {
            {QStringLiteral("listenOnly"), QStringLiteral("LISTEN ONLY")},
            {QStringLiteral("enabled"), QStringLiteral("ENABLED")},
            {QStringLiteral("method"), QStringLiteral("METHOD")},
        };
    columns.append({QStringLiteral("state"), QStringLiteral("STATE"), radioColour});
    printTable(columns, radios, QStringLiteral("No radio has been found or added yet."));
}

void printOutputs(const QJsonArray &outputs, bool withSettings)
{
    QVector<Column> columns{
        {QStringLiteral("id"), QStringLiteral("ID")},
        {QStringLiteral("kind"), QStringLiteral("KIND")},
        {QStringLiteral("target"), QStringLiteral("TARGET")},
        {QStringLiteral("topic"), QStringLiteral("TOPIC")},
    };
    if (withSettings)
        columns += {
            {QStringLiteral("enabled"), QStringLiteral("ENABLED")},
            {QStringLiteral("comment"), QStringLiteral("COMMENT")},
        };
    columns.append({QStringLiteral("state"), QStringLiteral("STATE"), outputColour});
    printTable(columns, outputs, QStringLiteral("No output is configured."));
}

void printOutboxesOf(const QJsonArray &outputs)
{
    QJsonArray rows;
    for (const auto &output : outputs) {
        QJsonObject row = output[QStringLiteral("outbox")].toObject();
        row[QStringLiteral("id")] = output[QStringLiteral("id")];
        if (row.size() > 1)
            rows.append(row);
    }
    if (rows.isEmpty())
        return;
    printLine(QString());
    printOutboxes(rows, false);
}

void printPending(const QJsonArray &actions)
{
    printTable({{QStringLiteral("id"), QStringLiteral("ID")},
                   {QStringLiteral("command"), QStringLiteral("COMMAND")}},
        actions, QStringLiteral("No action is pending."));
}

QString hostAndPort(const QString &host, int port)
{
    const bool bracketed = host.contains(QLatin1Char(':'));
    return (bracketed ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2")).arg(host, QString::number(port));
}
