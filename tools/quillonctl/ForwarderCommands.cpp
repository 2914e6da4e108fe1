#include "tools/quillonctl/Actions.h"
#include "tools/quillonctl/Commands.h"

#include "forwarders/CloudRequests.h"
#include "forwarders/OutboxFiles.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/CredentialFile.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Listing.h"
#include "tools/quillonctl/ServiceUser.h"
#include "tools/quillonctl/StreamTarget.h"

#include <QDir>
#include <QFile>

#include <memory>
#include <optional>

namespace {

const QString table = QStringLiteral("data_forwarder");
const QString targetColumn = QStringLiteral("target");
const QString enabledColumn = QStringLiteral("enabled");

struct OutputOptions
{
    std::string id;
    std::optional<std::string> target;
    std::optional<std::string> credentials;
    std::optional<std::string> topic;
    std::optional<std::string> endpoint;
    std::optional<std::string> comment;
    bool isPublic = false;
    bool disabled = false;
    bool json = false;
};
using Options = std::shared_ptr<OutputOptions>;

enum Destination {
    TcpServer,
    LogFile,
    Nothing,
    PubSub,
    Clients,
};

struct OutputKind
{
    QString type;
    const char *command;
    Destination destination;
    const char *help;
};

const OutputKind kinds[] = {
    {QStringLiteral("RAW"), "raw", TcpServer, "Stream frames to a TCP server, between STX and ETX"},
    {QStringLiteral("ERAW"), "eraw", TcpServer,
        "Stream frames to a TCP server, each after its radio's name and |"},
    {QStringLiteral("FILE"), "file", LogFile, "Write frames to a file, which is emptied at every start"},
    {QStringLiteral("DUOS"), "duos", Nothing, "Accept frames and send nothing"},
    {QStringLiteral("GCP"), "gcp", PubSub,
        "Publish frames to a topic of Google Cloud Pub/Sub; some get lost"},
    {QStringLiteral("PUBSUB"), "pubsub", PubSub, "Publish frames to such a topic and lose none"},
    {QStringLiteral("STREAM"), "stream", Clients, "Let programs join and read JSON records, as watch does"},
};

void printRestartNote()
{
    printLine(QStringLiteral("Outputs change at the next restart of the daemon: quillonctl restart"));
}

QString checkedLogFile(const std::string &argument)
{
    QString path = QDir::current().absoluteFilePath(checkedText(argument, QStringLiteral("a path"), 4000));
    const QString problem = ServiceUser::find().writeProblem(path);
    if (!problem.isEmpty())
        throw CommandError(problem);
    return path;
}

/// An endpoint that the daemon would publish to.
QString checkedEndpoint(const std::string &argument)
{
    if (argument == "default")
        return QStringLiteral("");
    QString url = checkedText(argument, QStringLiteral("an endpoint"), 300);
    if (!namesEndpoint(url))
        throw CommandError(
            QStringLiteral("an endpoint begins with https://, or is \"default\" for Google's"));
    for (const QString &problem : {endpointProblem(url), hostProblem(QUrl(url).host())}) {
        if (!problem.isEmpty())
            throw CommandError(problem);
    }
    return url;
}

/// Refuses options that mean nothing to this kind, rather than passing over them.
void requireFitting(const OutputKind &kind, const OutputOptions &options)
{
    const bool takesTarget = kind.destination != PubSub && kind.destination != Nothing;
    if (options.target && !takesTarget)
        throw CommandError(QStringLiteral("an output of the kind %1 has no --target").arg(kind.type));
    if ((options.credentials || options.topic || options.endpoint) && kind.destination != PubSub)
        throw CommandError(
            QStringLiteral("an output of the kind %1 has no --credentials, --topic or --endpoint")
                .arg(kind.type));
    if (options.isPublic && kind.destination != Clients)
        throw CommandError(QStringLiteral("an output of the kind %1 has no --public").arg(kind.type));
}

StreamTarget checkedListeningPlace(const OutputOptions &options)
{
    StreamTarget target = StreamTarget::fromArgument(*options.target);
    const QString problem = target.problem();
    if (!problem.isEmpty())
        throw CommandError(problem);
    if (target.isPublic() && !options.isPublic)
        throw CommandError(QStringLiteral("everybody who can reach %1 could read what is heard and sent: add "
                                          "--public if that is wanted")
                               .arg(target.text()));
    return target;
}

/// The columns that the options speak of, checked.
QVariantMap columnsOf(const OutputKind &kind, const OutputOptions &options)
{
    requireFitting(kind, options);
    QVariantMap columns;
    if (options.target && kind.destination == TcpServer) {
        const HostPort server = checkedHostPort(*options.target);
        columns[targetColumn] = server.host;
        columns[QStringLiteral("port")] = QString::number(server.port);
    }
    if (options.target && kind.destination == LogFile)
        columns[targetColumn] = checkedLogFile(*options.target);
    if (options.target && kind.destination == Clients)
        columns = checkedListeningPlace(options).columns();
    if (options.credentials)
        columns[QStringLiteral("secret")] =
            CredentialFile::read(checkedText(*options.credentials, QStringLiteral("a path"), 4000)).secret();
    if (options.topic)
        columns[QStringLiteral("context")] = checkedTopic(*options.topic);
    if (options.endpoint)
        columns[targetColumn] = checkedEndpoint(*options.endpoint);
    if (options.comment)
        columns[QStringLiteral("comment")] = checkedText(*options.comment, QStringLiteral("a comment"), 200);
    return columns;
}

void addOutput(const CommandContext &context, const OutputKind &kind, const OutputOptions &options)
{
    const QVariantMap columns = columnsOf(kind, options);
    const ConfigFile file = context.open(ConfigFile::ReadWrite);
    const int id = insertOutput(file, kind.type, columns, !options.disabled);
    printLine(QStringLiteral("Output %1 added: %2.").arg(QString::number(id), kind.type));
    if (kind.type == QLatin1String("PUBSUB") && QFile::exists(outboxPath(file.path(), id)))
        printLine(QStringLiteral("It goes on with the outbox of a removed output: quillonctl outbox show %1")
                      .arg(id));
    printRestartNote();
}

void changeOutput(const CommandContext &context, int id, const QVariantMap &columns)
{
    if (context.open(ConfigFile::ReadWrite).update(table, columns, QStringLiteral("ids"), id) == 0)
        throw CommandError(QStringLiteral("there is no output with the id %1").arg(id));
    printLine(QStringLiteral("Output %1 changed.").arg(id));
    printRestartNote();
}

void setOutput(const CommandContext &context, const OutputOptions &options)
{
    const int id = checkedId(options.id);
    const QString type =
        context.open(ConfigFile::ReadOnly).row(table, id).value(QStringLiteral("type")).toString().toUpper();
    for (const OutputKind &kind : kinds) {
        if (kind.type != type)
            continue;
        const QVariantMap columns = columnsOf(kind, options);
        if (columns.isEmpty())
            throw CommandError(QStringLiteral("nothing to change: see quillonctl forwarder set --help"));
        changeOutput(context, id, columns);
        return;
    }
    throw CommandError(QStringLiteral("output %1 is of an unknown kind; remove it").arg(id));
}

void removeOutput(const CommandContext &context, const OutputOptions &options)
{
    const int id = checkedId(options.id);
    if (context.open(ConfigFile::ReadWrite).remove(table, QStringLiteral("ids"), id) == 0)
        throw CommandError(QStringLiteral("there is no output with the id %1").arg(id));
    printLine(QStringLiteral("Output %1 removed.").arg(id));
    printRestartNote();
}

void addKindCommand(CLI::App *add, CommandContext &context, const OutputKind &kind)
{
    const auto options = std::make_shared<OutputOptions>();
    CLI::App *command = add->add_subcommand(kind.command, kind.help);
    if (kind.destination == TcpServer)
        command->add_option("TARGET", options->target, "HOST:PORT or [IPv6]:PORT")->required();
    if (kind.destination == LogFile)
        command->add_option("PATH", options->target, "File in an existing folder, or a named pipe")
            ->required();
    if (kind.destination == PubSub) {
        command->add_option("CREDENTIALS", options->credentials, "Service-account document (JSON)")
            ->required();
        command->add_option("--topic", options->topic, "Topic id, without the project")->required();
        command->add_option("--endpoint", options->endpoint, "https://HOST[:PORT] instead of Google's");
    }
    if (kind.destination == Clients) {
        options->target = StreamTarget::defaultPath.toStdString();
        command->add_option("TARGET", options->target, "Path of a Unix socket, or ADDRESS:PORT")
            ->default_str(*options->target);
        command->add_flag("--public", options->isPublic, "Let other machines read, too");
    }
    command->add_option("--comment", options->comment, "Free text");
    command->add_flag("--disabled", options->disabled, "Add it switched off");
    command->callback([&context, &kind, options] { addOutput(context, kind, *options); });
}

void addSetCommand(CLI::App *forwarder, CommandContext &context)
{
    const auto options = std::make_shared<OutputOptions>();
    CLI::App *set = forwarder->add_subcommand("set", "Change the settings of an output");
    set->add_option("ID", options->id, "Its id in the list")->required();
    set->add_option("--target", options->target, "HOST:PORT (raw, eraw), PATH (file) or either (stream)");
    set->add_flag("--public", options->isPublic, "Let other machines read, too (stream)");
    set->add_option("--credentials", options->credentials, "Service-account document (gcp, pubsub)");
    set->add_option("--topic", options->topic, "Topic id (gcp, pubsub)");
    set->add_option(
        "--endpoint", options->endpoint, "https://HOST[:PORT], or default for Google's (gcp, pubsub)");
    set->add_option("--comment", options->comment, "Free text");
    set->callback([&context, options] { setOutput(context, *options); });
}

void addListCommand(CLI::App *forwarder, CommandContext &context)
{
    const auto options = std::make_shared<OutputOptions>();
    CLI::App *list =
        forwarder->add_subcommand("list", "Show the outputs and their settings, without secrets");
    list->add_flag("--json", options->json, "Write JSON");
    list->callback([&context, options] {
        const QJsonArray outputs = outputRows(context.open(ConfigFile::ReadOnly));
        if (options->json)
            printJson(outputs);
        else
            printOutputs(outputs, true);
    });
}

} // namespace

void addForwarderCommands(CLI::App &app, CommandContext &context)
{
    CLI::App *forwarder = app.add_subcommand("forwarder", "List, add and change outputs");
    forwarder->require_subcommand(1);
    addListCommand(forwarder, context);
    CLI::App *add = forwarder->add_subcommand("add", "Add an output");
    add->require_subcommand(1);
    for (const OutputKind &kind : kinds)
        addKindCommand(add, context, kind);
    addSetCommand(forwarder, context);

    const auto options = std::make_shared<OutputOptions>();
    const auto setEnabled = [&context, options](bool enabled) {
        changeOutput(context, checkedId(options->id), {{enabledColumn, enabled}});
    };
    CLI::App *enable = forwarder->add_subcommand("enable", "Start the output with the daemon");
    enable->callback([setEnabled] { setEnabled(true); });
    CLI::App *disable = forwarder->add_subcommand("disable", "Do not start the output");
    disable->callback([setEnabled] { setEnabled(false); });
    CLI::App *remove = forwarder->add_subcommand("remove", "Forget an output");
    remove->callback([&context, options] { removeOutput(context, *options); });
    for (CLI::App *command : {enable, disable, remove})
        command->add_option("ID", options->id, "Its id in the list")->required();
}
