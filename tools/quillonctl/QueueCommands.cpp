#include "tools/quillonctl/Actions.h"
#include "tools/quillonctl/Commands.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Listing.h"

#include <memory>

namespace {

const QString table = QStringLiteral("pending_actions");
const int displayWidth = 12;

struct QueueOptions
{
    std::string text;
    bool yes = false;
    bool json = false;
};

void say(const CommandContext &context, const QueueOptions &options)
{
    const QString displayed = queueText(context.open(ConfigFile::ReadWrite), options.text);
    printLine(QStringLiteral("Queued for every radio that commands are sent to: %1").arg(displayed));
    printLine(QStringLiteral("Displays receive it in capitals; double quotes are removed."));
    if (displayed.size() <= displayWidth)
        printLine(QStringLiteral("It is cleared after 5 seconds."));
    else
        printLine(QStringLiteral(
            "It is longer than 12 characters: it moves on by five characters at each step, 100 ms "
            "and the wait in the radio's queue apart, and is cleared at the end."));
}

void printQueued(bool added)
{
    printLine(added
            ? QStringLiteral("Queued. The daemon carries it out within about two seconds, or once it runs.")
            : QStringLiteral("It is queued already; the daemon carries it out once it runs."));
}

void reboot(const CommandContext &context, const QueueOptions &options)
{
    if (!options.yes)
        throw CommandError(QStringLiteral("this reboots the machine: say so with quillonctl reboot --yes"));
    printQueued(queueOnce(context.open(ConfigFile::ReadWrite), QStringLiteral("REBOOT")));
}

void clearPending(const CommandContext &context)
{
    const int count = context.open(ConfigFile::ReadWrite).clear(table);
    printLine(QStringLiteral("%1 pending actions removed.").arg(count));
}

void addPendingCommands(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<QueueOptions>();
    CLI::App *pending = app.add_subcommand("pending", "Actions that the daemon has yet to carry out");
    pending->require_subcommand(1);
    CLI::App *list = pending->add_subcommand("list", "Show them in their order");
    list->add_flag("--json", options->json, "Write JSON");
    list->callback([&context, options] {
        const QJsonArray actions = pendingRows(context.open(ConfigFile::ReadOnly));
        if (options->json)
            printJson(actions);
        else
            printPending(actions);
    });
    CLI::App *clear = pending->add_subcommand("clear", "Remove them all");
    clear->callback([&context] { clearPending(context); });
}

} // namespace

void addQueueCommands(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<QueueOptions>();
    CLI::App *sayCommand = app.add_subcommand("say", "Show a text on every radio's display");
    sayCommand->add_option("TEXT", options->text, "Text, one argument")->required();
    sayCommand->callback([&context, options] { say(context, *options); });

    CLI::App *restart = app.add_subcommand("restart", "End the daemon, which its service then starts again");
    restart->callback([&context] { printQueued(queueRestart(context.open(ConfigFile::ReadWrite))); });

    CLI::App *rebootCommand = app.add_subcommand("reboot", "Reboot the machine");
    rebootCommand->add_flag("--yes", options->yes, "Really do it");
    rebootCommand->callback([&context, options] { reboot(context, *options); });

    addPendingCommands(app, context);
}
