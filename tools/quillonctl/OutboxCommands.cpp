#include "tools/quillonctl/Commands.h"

#include "forwarders/OutboxFiles.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/OutboxFile.h"
#include "tools/quillonctl/Printer.h"

#include <QFile>

#include <memory>

namespace {

struct OutboxOptions
{
    std::string id;
    bool yes = false;
    bool json = false;
};

/// Whether an output of the kind that has outboxes has this id.
bool hasOutput(const ConfigFile &file, int id)
{
    for (const QSqlRecord &row : file.rows(QStringLiteral("data_forwarder"))) {
        if (row.value(QStringLiteral("ids")).toInt() == id)
            return row.value(QStringLiteral("type")).toString().toUpper() == QLatin1String("PUBSUB");
    }
    return false;
}

QString existingOutbox(const ConfigFile &file, int id)
{
    QString path = outboxFiles(file.path()).value(id);
    if (path.isEmpty())
        throw CommandError(QStringLiteral("there is no outbox %1: see quillonctl outbox list").arg(id));
    return path;
}

void list(const CommandContext &context, bool json)
{
    const ConfigFile file = context.open(ConfigFile::ReadOnly);
    const QMap<int, QString> files = outboxFiles(file.path());
    QJsonArray rows;
    for (auto each = files.cbegin(); each != files.cend(); ++each) {
        QJsonObject row = outboxCounts(each.value(), context.waitSeconds * 1000);
        row[QStringLiteral("id")] = each.key();
        row[QStringLiteral("output")] = hasOutput(file, each.key());
        row[QStringLiteral("file")] = each.value();
        rows.append(row);
    }
    if (json)
        printJson(rows);
    else
        printOutboxes(rows, true);
}

void show(const CommandContext &context, const OutboxOptions &options)
{
    const int id = checkedId(options.id);
    OutboxFile outbox(existingOutbox(context.open(ConfigFile::ReadOnly), id), OutboxFile::ReadOnly,
        context.waitSeconds * 1000);
    QJsonObject counts = outbox.counts();
    counts[QStringLiteral("id")] = id;
    const QJsonArray refused = outbox.refused();
    if (options.json) {
        counts[QStringLiteral("refusedMessages")] = refused;
        printJson(counts);
        return;
    }
    printOutboxes({counts}, false);
    printLine(QString());
    printTable({{QStringLiteral("sequence"), QStringLiteral("SEQUENCE")},
                   {QStringLiteral("reason"), QStringLiteral("REASON")},
                   {QStringLiteral("message"), QStringLiteral("MESSAGE")}},
        refused, QStringLiteral("No refused message is kept."));
}

void drop(const CommandContext &context, const OutboxOptions &options)
{
    const int id = checkedId(options.id);
    const ConfigFile file = context.open(ConfigFile::ReadOnly);
    const QString path = existingOutbox(file, id);
    if (!options.yes)
        throw CommandError(
            QStringLiteral("this would throw away the messages that wait in the outbox %1: add --yes")
                .arg(id));
    const qint64 dropped = OutboxFile(path, OutboxFile::ReadWrite, context.waitSeconds * 1000).clear();
    printLine(QStringLiteral("%1 messages of the outbox %2 dropped.").arg(dropped).arg(id));
    if (hasOutput(file, id))
        return; // the daemon has it open
    for (const char *part : {"-wal", "-shm", ""})
        QFile::remove(path + QLatin1String(part));
    printLine(QStringLiteral("It belonged to no output; %1 is removed.").arg(path));
}

} // namespace

void addOutboxCommands(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<OutboxOptions>();
    CLI::App *outbox = app.add_subcommand("outbox", "Look at the messages that wait for the cloud");
    outbox->require_subcommand(1);
    CLI::App *listCommand = outbox->add_subcommand("list", "Show the outboxes, of removed outputs, too");
    listCommand->callback([&context, options] { list(context, options->json); });
    CLI::App *showCommand = outbox->add_subcommand("show", "Show the messages that the server refused");
    showCommand->callback([&context, options] { show(context, *options); });
    CLI::App *dropCommand = outbox->add_subcommand("drop", "Throw away what waits in an outbox");
    dropCommand->add_flag("--yes", options->yes, "Really do it");
    dropCommand->callback([&context, options] { drop(context, *options); });
    for (CLI::App *command : {listCommand, showCommand})
        command->add_flag("--json", options->json, "Write JSON");
    for (CLI::App *command : {showCommand, dropCommand})
        command->add_option("ID", options->id, "Id of the output that it belongs to")->required();
}
