#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Commands.h"
#include "tools/quillonctl/Program.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace {

const QString installedFolder = QStringLiteral("/var/lib/quillon");
const QString installedFile = QStringLiteral("/var/lib/quillon/quillon.sqlite");
const QString daemonDefaultFile = QStringLiteral("/tmp/ostraForwarder.sqlite");

/// The file of the installed service when there is one. A folder that this user may not look into counts as
/// one: it is better to be told so than to be shown another file.
QString defaultConfigFile()
{
    const QFileInfo folder(installedFolder);
    const bool closed = folder.isDir() && !folder.isExecutable();
    return closed || QFileInfo::exists(installedFile) ? installedFile : daemonDefaultFile;
}

void addCommands(CLI::App &app, CommandContext &context)
{
    app.set_version_flag("--version", "quillonctl " QUILLON_VERSION);
    app.require_subcommand(1);
    app.fallthrough(); // so that the options for all commands may also stand after a command
    app.add_option("-c,--configfile", context.configFile, "The daemon's configuration file")
        ->capture_default_str();
    app.add_option(
           "--wait", context.waitSeconds, "Seconds to wait for a file that another program has locked")
        ->check(CLI::Range(0, 600))
        ->capture_default_str();
    addStatusCommand(app, context);
    addWatchCommand(app, context);
    addRadioCommands(app, context);
    addPortCommands(app, context);
    addForwarderCommands(app, context);
    addConfigCommands(app, context);
    addQueueCommands(app, context);
    addOutboxCommands(app, context);
    addInitCommand(app, context);
    addCheckCommand(app, context);
    addConsoleCommands(app, context);
}

/// Takes the command line, in UTF-8. False when it asked for the help or the version, which are printed then;
/// throws CommandError when it is wrong.
bool parseArguments(CLI::App &app, int argc, char *argv[])
{
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            throw CommandError(
                QStringLiteral("%1; see %2 --help")
                    .arg(QString::fromUtf8(error.what()), QCoreApplication::applicationName()));
        app.exit(error); // prints the help or the version
        return false;
    }
}

int run(int argc, char *argv[])
{
    CommandContext context;
    context.configFile = defaultConfigFile().toStdString();
    CLI::App app(
        "Steers the Quillon gateway through its configuration file, while it runs or not.", "quillonctl");
    addCommands(app, context);
    return parseArguments(app, argc, argv) ? context.exitCode : 0;
}

} // namespace

int main(int argc, char *argv[])
{
    return runProgram("quillonctl", argc, argv, run);
}
