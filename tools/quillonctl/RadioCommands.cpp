#include "tools/quillonctl/Actions.h"
#include "tools/quillonctl/Commands.h"

#include "serial/DevicePath.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/DaemonLock.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Listing.h"

#include <QFileInfo>

#include <memory>
#include <optional>
#include <sys/stat.h>

namespace {

const QString table = QStringLiteral("radio_adapters");
const QString staticMethod = QStringLiteral("STATIC");
const QString idColumn = QStringLiteral("ids");
const QString portColumn = QStringLiteral("port");
const QString nameColumn = QStringLiteral("name");
const QString autobaudColumn = QStringLiteral("autobaud");
const QString baudrateColumn = QStringLiteral("baudrate");
const QString txColumn = QStringLiteral("tx_enabled");
const QString enabledColumn = QStringLiteral("enabled");

struct RadioOptions
{
    std::string port;
    std::string id;
    std::optional<std::string> name;
    std::optional<std::string> baud;
    bool autobaud = false;
    bool listenOnly = false;
    bool transmit = false;
    bool disabled = false;
    bool json = false;
};
using Options = std::shared_ptr<RadioOptions>;

/// The columns that the options speak of.
QVariantMap columnsOf(const RadioOptions &options)
{
    QVariantMap columns;
    if (options.name)
        columns[nameColumn] = checkedRadioName(*options.name);
    if (options.baud) {
        columns[autobaudColumn] = false;
        columns[baudrateColumn] = checkedBaudRate(*options.baud);
    }
    if (options.autobaud)
        columns[autobaudColumn] = true;
    if (options.listenOnly || options.transmit)
        columns[txColumn] = options.transmit;
    return columns;
}

/// The radio whose row names the same device as `port` in another way; empty when there is none.
QString otherRowOf(const ConfigFile &file, const QString &port)
{
    const QString device = devicePath(port);
    for (const QSqlRecord &record : file.rows(table)) {
        const QString other = record.value(portColumn).toString();
        if (other != port && !device.isEmpty() && devicePath(other) == device)
            return QStringLiteral("%1 (%2)").arg(record.value(QStringLiteral("ids")).toString(), other);
    }
    return {};
}

void printIfDeaf(const ConfigFile &file, int id)
{
    if (isDeaf(file, file.row(table, id)))
        printLine(QStringLiteral("Nothing finds out the speed of a radio that is only listened to, and its "
                                 "frames are dropped: quillonctl radio set %1 --baud RATE")
                      .arg(id));
}

void printAdded(const ConfigFile &file, int id, const QString &port, bool enabled)
{
    printLine(QStringLiteral("Radio %1 added on the port %2.").arg(QString::number(id), port));
    printIfDeaf(file, id);
    const QString other = otherRowOf(file, port);
    if (!other.isEmpty())
        printLine(
            QStringLiteral("Radio %1 stands for the same device: from now on the new row counts. If the "
                           "daemon drives the device already, that is after quillonctl restart.")
                .arg(other));
    if (!enabled)
        return;
    const QString blocking = blockingEntry(port, staticMethod, blockedPorts(file));
    if (!blocking.isNull())
        printLine(QStringLiteral("The port is blocked as %1: quillonctl port unblock %1").arg(blocking));
    else if (!QFileInfo::exists(deviceFile(port)))
        printLine(
            QStringLiteral("%1 does not exist yet; the daemon opens it once it does.").arg(deviceFile(port)));
    else if (other.isEmpty())
        printLine(QStringLiteral("The daemon opens it at its next scan, within 5 seconds."));
}

/// The row of a new radio, with what the options leave open.
QVariantMap newRow(const QString &port, const RadioOptions &options)
{
    QVariantMap columns{
        {QStringLiteral("method"), staticMethod},
        {portColumn, port},
        {nameColumn, QFileInfo(port).fileName().left(64)},
        {autobaudColumn, true},
        {txColumn, true},
        {baudrateColumn, 0},
        {enabledColumn, !options.disabled},
        {QStringLiteral("discovered"), false},
        {QStringLiteral("status"), 0},
        {QStringLiteral("esn"), QStringLiteral("")},
    };
    const QVariantMap given = columnsOf(options);
    for (auto column = given.begin(); column != given.end(); ++column)
        columns[column.key()] = column.value();
    return columns;
}

void addRadio(const CommandContext &context, const RadioOptions &options)
{
    const QString port = checkedPort(options.port);
    struct stat status = {};
    if (stat(QFile::encodeName(deviceFile(port)).constData(), &status) == 0 && !S_ISCHR(status.st_mode))
        throw CommandError(QStringLiteral("%1 is no serial device").arg(deviceFile(port)));
    const QVariantMap columns = newRow(port, options);
    const ConfigFile file = context.open(ConfigFile::ReadWrite);
    const int id = file.insertUnlessPresent(table, columns, portColumn);
    if (id == 0)
        throw CommandError(
            QStringLiteral("there is a radio on the port %1 already: see quillonctl radio list").arg(port));
    printAdded(file, id, port, !options.disabled);
}

void setRadio(const CommandContext &context, const RadioOptions &options, const QVariantMap &columns)
{
    const int id = checkedId(options.id);
    if (columns.isEmpty())
        throw CommandError(QStringLiteral("nothing to change: see quillonctl radio set --help"));
    const ConfigFile file = context.open(ConfigFile::ReadWrite);
    changeRadio(file, id, columns);
    printLine(QStringLiteral(
        "Radio %1 changed. The daemon reads the row when it next opens the port, at the latest "
        "after quillonctl restart.")
                  .arg(id));
    printLine(
        QStringLiteral("While it has the port open it may write the former values back: look again with "
                       "quillonctl radio list."));
    printIfDeaf(file, id);
}

/// Whether the daemon may have the radio's port open, whatever the row says by now.
bool mayBeDriven(const ConfigFile &file, const QSqlRecord &radio)
{
    return QFileInfo::exists(deviceFile(radio.value(portColumn).toString())) && daemonRuns(file.path());
}

void removeRadio(const CommandContext &context, const RadioOptions &options)
{
    const int id = checkedId(options.id);
    const ConfigFile file = context.open(ConfigFile::ReadWrite);
    for (const QSqlRecord &radio : file.rows(table)) {
        if (radio.value(idColumn).toInt() == id && mayBeDriven(file, radio))
            throw CommandError(
                QStringLiteral("the daemon may drive radio %1, and would write its row over that of the next "
                               "one with this id: unplug it, or stop the daemon, then remove it")
                    .arg(id));
    }
    if (file.remove(table, idColumn, id) == 0)
        throw CommandError(QStringLiteral("there is no radio with the id %1").arg(id));
    printLine(
        QStringLiteral("Radio %1 removed. A port that the machine lists gets a new row while it is there; "
                       "quillonctl port block keeps the daemon off it.")
            .arg(id));
}

void addSpeedAndName(CLI::App *command, const Options &options)
{
    command->add_option("--name", options->name, "Name that is shown and sent along");
    command->add_option("--baud", options->baud, "Fixed speed in bit/s, instead of trying the usual ones");
}

void addListCommand(CLI::App *radio, CommandContext &context)
{
    const auto options = std::make_shared<RadioOptions>();
    CLI::App *list = radio->add_subcommand("list", "Show the radios and their settings");
    list->add_flag("--json", options->json, "Write JSON");
    list->callback([&context, options] {
        const QJsonArray radios = radioRows(context.open(ConfigFile::ReadOnly));
        if (options->json)
            printJson(radios);
        else
            printRadios(radios, true);
    });
}

void addAddCommand(CLI::App *radio, CommandContext &context)
{
    const auto options = std::make_shared<RadioOptions>();
    CLI::App *add = radio->add_subcommand("add", "Add a radio on a port, by any of its names");
    add->add_option("PORT", options->port, "Name under /dev, such as pts/3, or an absolute path")->required();
    addSpeedAndName(add, options);
    add->add_flag("--listen-only", options->listenOnly, "Never send anything to the radio");
    add->add_flag("--disabled", options->disabled, "Do not open the port yet");
    add->callback([&context, options] { addRadio(context, *options); });
}

void addSetCommand(CLI::App *radio, CommandContext &context)
{
    const auto options = std::make_shared<RadioOptions>();
    CLI::App *set = radio->add_subcommand("set", "Change the settings of a radio");
    set->add_option("ID", options->id, "Its id in the list")->required();
    addSpeedAndName(set, options);
    set->add_flag("--autobaud", options->autobaud, "Try the usual speeds")->excludes("--baud");
    set->add_flag("--listen-only", options->listenOnly, "Never send anything to the radio");
    set->add_flag("--transmit", options->transmit, "Send commands to the radio")->excludes("--listen-only");
    set->callback([&context, options] { setRadio(context, *options, columnsOf(*options)); });
}

} // namespace

void addRadioCommands(CLI::App &app, CommandContext &context)
{
    CLI::App *radio = app.add_subcommand("radio", "List, add and change radios");
    radio->require_subcommand(1);
    addListCommand(radio, context);
    addAddCommand(radio, context);
    addSetCommand(radio, context);

    const auto options = std::make_shared<RadioOptions>();
    CLI::App *enable = radio->add_subcommand("enable", "Let the daemon open the port");
    enable->callback([&context, options] { setRadio(context, *options, {{enabledColumn, true}}); });
    CLI::App *disable = radio->add_subcommand("disable", "Keep the daemon from opening the port");
    disable->callback([&context, options] { setRadio(context, *options, {{enabledColumn, false}}); });
    CLI::App *remove = radio->add_subcommand("remove", "Forget a radio");
    remove->callback([&context, options] { removeRadio(context, *options); });
    for (CLI::App *command : {enable, disable, remove})
        command->add_option("ID", options->id, "Its id in the list")->required();
}
