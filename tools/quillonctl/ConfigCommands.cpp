#include "tools/quillonctl/Commands.h"

#include "config/ConfigKeys.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/KnownKeys.h"
#include "tools/quillonctl/Listing.h"

#include <iostream>
#include <memory>

namespace {

const QString table = QStringLiteral("system_configuration");
const QString nameColumn = QStringLiteral("name");
const QString valueColumn = QStringLiteral("value");
const QString hiddenValue = QStringLiteral("(hidden)");

struct KeyOptions
{
    std::string key;
    std::string value;
    bool showSecrets = false;
    bool json = false;
};

QJsonObject keyRow(const QString &name, const QString &value, bool showSecrets)
{
    const KnownKey *key = findKnownKey(name);
    const bool hidden = key && key->secret && !showSecrets && value != UNDEFINED_VALUE;
    return {
        {QStringLiteral("key"), name},
        {QStringLiteral("value"), hidden ? hiddenValue : value},
        {QStringLiteral("allowed"), key ? key->allowed : QString()},
        {QStringLiteral("meaning"), key ? key->meaning : QStringLiteral("Unknown key, read by nothing")},
    };
}

/// The known keys, then what else the file holds. Of several rows of one key the first one counts.
QJsonArray keyRows(const ConfigFile &file, bool showSecrets)
{
    QMap<QString, QString> values;
    for (const QSqlRecord &record : file.rows(table)) {
        const QString name = record.value(nameColumn).toString();
        if (!values.contains(name))
            values[name] = record.value(valueColumn).toString();
    }
    QJsonArray result;
    for (const KnownKey &key : knownKeys()) {
        result.append(keyRow(key.name, values.value(key.name, UNDEFINED_VALUE), showSecrets));
        values.remove(key.name);
    }
    for (auto value = values.cbegin(); value != values.cend(); ++value)
        result.append(keyRow(value.key(), value.value(), showSecrets));
    return result;
}

void listKeys(const CommandContext &context, const KeyOptions &options)
{
    const QJsonArray keys = keyRows(context.open(ConfigFile::ReadOnly), options.showSecrets);
    if (options.json)
        printJson(keys);
    else
        printTable({{QStringLiteral("key"), QStringLiteral("KEY")},
                       {QStringLiteral("value"), QStringLiteral("VALUE")},
                       {QStringLiteral("allowed"), QStringLiteral("ALLOWED")},
                       {QStringLiteral("meaning"), QStringLiteral("MEANING")}},
            keys, QString());
}

void getKey(const CommandContext &context, const KeyOptions &options)
{
    const QString name = checkedText(options.key, QStringLiteral("a key"), 64);
    for (const auto &row : keyRows(context.open(ConfigFile::ReadOnly), options.showSecrets)) {
        const QJsonObject key = row.toObject();
        if (key.value(QStringLiteral("key")).toString() != name)
            continue;
        if (options.json)
            printJson(key);
        else
            printLine(key.value(QStringLiteral("value")).toString());
        return;
    }
    throw CommandError(QStringLiteral("there is no key %1: see quillonctl config list").arg(printable(name)));
}

/// The value, which "-" takes from standard input, so that a password shows in no list of processes.
QString givenValue(const KeyOptions &options)
{
    std::string value = options.value;
    if (value == "-")
        std::getline(std::cin, value);
    return checkedText(value, QStringLiteral("a value"), 300);
}

/// Whether the daemon looks at the new value only when it starts. A running autokill is switched off at once.
bool countsAtStart(const KnownKey &key, const QString &value)
{
    const bool switchesOff = key.name == AUTOKILL_ENABLED_KEY && value == QLatin1String("false");
    return key.readAtStart && !switchesOff;
}

void setKey(const CommandContext &context, const KeyOptions &options)
{
    const QString name = checkedText(options.key, QStringLiteral("a key"), 64);
    const KnownKey *key = findKnownKey(name);
    if (!key)
        throw CommandError(
            QStringLiteral("there is no key %1: see quillonctl config list").arg(printable(name)));
    const QString value = givenValue(options);
    const QString problem = valueProblem(*key, value);
    if (!problem.isEmpty())
        throw CommandError(QStringLiteral("%1 was not changed: %2").arg(name, problem));

    const ConfigFile file = context.open(ConfigFile::ReadWrite);
    if (file.update(table, {{valueColumn, value}}, nameColumn, name) == 0)
        file.insertUnlessPresent(table, {{nameColumn, name}, {valueColumn, value}}, nameColumn);
    printLine(QStringLiteral("%1 is set; %2.")
                  .arg(name,
                      countsAtStart(*key, value)
                          ? QStringLiteral("the daemon reads it at its next restart: quillonctl restart")
                          : QStringLiteral("the daemon uses it from now on")));
}

} // namespace

void addConfigCommands(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<KeyOptions>();
    CLI::App *config = app.add_subcommand("config", "Show and change system settings");
    config->require_subcommand(1);
    CLI::App *list =
        config->add_subcommand("list", "Show every key with its value, allowed values and meaning");
    list->callback([&context, options] { listKeys(context, *options); });
    CLI::App *get = config->add_subcommand("get", "Show the value of a key");
    get->callback([&context, options] { getKey(context, *options); });
    CLI::App *set = config->add_subcommand("set", "Change the value of a key");
    set->callback([&context, options] { setKey(context, *options); });

    for (CLI::App *command : {get, set})
        command->add_option("KEY", options->key, "Name of the key")->required();
    set->add_option("VALUE", options->value, "New value; - reads it from standard input")->required();
    for (CLI::App *command : {list, get}) {
        command->add_flag("--show-secrets", options->showSecrets, "Show passwords");
        command->add_flag("--json", options->json, "Write JSON");
    }
}
