#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Commands.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Printer.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTextCodec>

#include <cstdio>

namespace {

const int failureCode = 2;

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

void printError(const QString &message)
{
    const QString line = printable(message, 600);
    std::fprintf(stderr, "quillonctl: %s\n", line.toUtf8().constData());
}

/// Lines of the shared code that are meant for the daemon's log stay out of the way.
void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        printError(message);
}

void requireUtf8(int argc, char *argv[])
{
    for (int i = 1; i < argc; ++i) {
        if (!isUtf8(argv[i]))
            throw CommandError(QStringLiteral("argument %1 is not UTF-8 text").arg(i));
    }
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

int run(int argc, char *argv[])
{
    requireUtf8(argc, argv);
    CommandContext context;
    context.configFile = defaultConfigFile().toStdString();
    CLI::App app(
        "Steers the Quillon gateway through its configuration file, while it runs or not.", "quillonctl");
    addCommands(app, context);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); // prints the help or the version
        throw CommandError(QString::fromUtf8(error.what()) + QStringLiteral("; see quillonctl --help"));
    }
    return context.exitCode;
}

} // namespace

int main(int argc, char *argv[])
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8")); // names of files, in any locale
    qInstallMessageHandler(handleMessage);
    int ownArgument = 1; // the others are not Qt's to look at
    const QCoreApplication application(ownArgument, argv);
    try {
        return run(argc, argv);
    } catch (const CommandError &error) {
        printError(error.message());
    } catch (const std::exception &error) {
        printError(QString::fromUtf8(error.what()));
    }
    return failureCode;
}
