#include "tools/quillonctl/Commands.h"

#include "serial/DevicePath.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Listing.h"

#include <QSerialPortInfo>

#include <memory>

namespace {

const QString table = QStringLiteral("port_blacklist");
const QString portColumn = QStringLiteral("port");

struct PortOptions
{
    std::string name;
    bool json = false;
};

void blockPort(const CommandContext &context, const PortOptions &options)
{
    const QString port = checkedPort(options.name);
    const bool added =
        context.open(ConfigFile::ReadWrite).insertUnlessPresent(table, {{portColumn, port}}, portColumn) > 0;
    printLine(
        (added ? QStringLiteral("%1 is blocked; a port that is open now stays open until the radio stops or "
                                "the daemon restarts.")
               : QStringLiteral("%1 was blocked before."))
            .arg(port));
    const QString device = devicePath(port);
    if (!device.isEmpty() && device != deviceFile(port))
        printLine(QStringLiteral("It leads to %1, which may still be opened under that name: quillonctl port "
                                 "block %1")
                      .arg(device));
}

void unblockPort(const CommandContext &context, const PortOptions &options)
{
    const QString port = checkedPort(options.name);
    if (context.open(ConfigFile::ReadWrite).remove(table, portColumn, port) == 0)
        throw CommandError(QStringLiteral("the port %1 is not blocked").arg(port));
    printLine(QStringLiteral("%1 is no longer blocked; the daemon looks at it at its next scan.").arg(port));
}

QJsonObject portRow(const QString &name, bool blocked, const QSerialPortInfo &info)
{
    return {
        {QStringLiteral("port"), name},
        {QStringLiteral("blocked"), blocked},
        {QStringLiteral("present"), !info.isNull()},
        {QStringLiteral("description"), info.description()},
    };
}

void listPorts(const CommandContext &context, const PortOptions &options)
{
    QStringList blocked = blockedPorts(context.open(ConfigFile::ReadOnly));
    QJsonArray ports;
    for (const QSerialPortInfo &info : QSerialPortInfo::availablePorts())
        ports.append(portRow(info.portName(), blocked.removeAll(info.portName()) > 0, info));
    for (const QString &name : qAsConst(blocked))
        ports.append(portRow(name, true, QSerialPortInfo()));

    if (options.json)
        printJson(ports);
    else
        printTable({{QStringLiteral("port"), QStringLiteral("PORT")},
                       {QStringLiteral("blocked"), QStringLiteral("BLOCKED")},
                       {QStringLiteral("present"), QStringLiteral("PRESENT")},
                       {QStringLiteral("description"), QStringLiteral("DESCRIPTION")}},
            ports, QStringLiteral("The machine lists no serial port, and none is blocked."));
}

} // namespace

void addPortCommands(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<PortOptions>();
    CLI::App *port = app.add_subcommand("port", "Keep the daemon off serial ports");
    port->require_subcommand(1);
    CLI::App *list =
        port->add_subcommand("list", "Show the machine's serial ports and those that are blocked");
    list->add_flag("--json", options->json, "Write JSON");
    list->callback([&context, options] { listPorts(context, *options); });
    CLI::App *block = port->add_subcommand("block", "Never open this port");
    block->callback([&context, options] { blockPort(context, *options); });
    CLI::App *unblock = port->add_subcommand("unblock", "Allow a blocked port again");
    unblock->callback([&context, options] { unblockPort(context, *options); });
    for (CLI::App *command : {block, unblock})
        command->add_option("NAME", options->name, "Port name, such as ttyUSB0")->required();
}
