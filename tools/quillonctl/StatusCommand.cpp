#include "tools/quillonctl/Commands.h"

#include "config/ConfigKeys.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Listing.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>

namespace {

struct StatusOptions
{
    bool json = false;
    bool watch = false;
};

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int)
{
    stopRequested = 1;
}

void printStatus(const ConfigFile &file)
{
    const QString release = systemValue(file, BDD_RELEASE_KEY);
    printLine(QStringLiteral("Configuration %1, schema release %2%3")
                  .arg(file.path(), release,
                      release == BDD_RELEASE_VALUE ? QString() : QStringLiteral(" (not current)")));
    printLine(QString());
    printRadios(radioRows(file), false);
    printLine(QString());
    const QJsonArray outputs = outputRows(file);
    printOutputs(outputs, false);
    printOutboxesOf(outputs);
    printLine(QString());
    printPending(pendingRows(file));
}

void showStatus(const CommandContext &context, bool json)
{
    const ConfigFile file = context.open(ConfigFile::ReadOnly);
    if (!json) {
        printStatus(file);
        return;
    }
    printJson(QJsonObject{
        {QStringLiteral("configfile"), file.path()},
        {QStringLiteral("release"), systemValue(file, BDD_RELEASE_KEY)},
        {QStringLiteral("radios"), radioRows(file)},
        {QStringLiteral("outputs"), outputRows(file)},
        {QStringLiteral("pending"), pendingRows(file)},
    });
}

/// The file is opened anew each time: the daemon may have replaced it, and a lock of a moment passes.
void watchStatus(const CommandContext &context, bool json)
{
    struct sigaction action = {};
    action.sa_handler = requestStop; // without SA_RESTART, so that Ctrl-C ends the pause
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    showStatus(context, json); // what is wrong from the start ends the command
    while (!stopRequested) {
        std::fflush(stdout);
        const timespec pause = {1, 0};
        nanosleep(&pause, nullptr);
        if (stopRequested)
            break;
        if (hasColours())
            std::fputs("\033[H\033[2J", stdout);
        try {
            showStatus(context, json);
        } catch (const CommandError &error) {
            printLine(error.message());
        }
    }
}

} // namespace

void addStatusCommand(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<StatusOptions>();
    CLI::App *status = app.add_subcommand("status", "Show the radios, the outputs and the pending actions");
    status->add_flag("--watch", options->watch, "Show it again every second, until Ctrl-C");
    status->add_flag("--json", options->json, "Write JSON");
    status->callback([&context, options] {
        if (options->watch)
            watchStatus(context, options->json);
        else
            showStatus(context, options->json);
    });
}
