#include "tools/quillonctl/Commands.h"
#include "tools/quillonctl/Findings.h"
#include "tools/quillonctl/Printer.h"

#include <memory>

namespace {

struct CheckOptions
{
    std::string user;
    bool json = false;
    bool spareWorking = false;
};

void check(CommandContext &context, const CheckOptions &options)
{
    const ConfigFile file = context.open(ConfigFile::ReadOnly);
    const QJsonArray findings = findingRows(file,
        options.user.empty() ? ServiceUser::find() : ServiceUser::named(QString::fromStdString(options.user)),
        options.spareWorking ? WhatFails : Everything);
    for (const auto &finding : findings)
        context.exitCode = qMax(context.exitCode, severityOf(finding.toObject()));
    if (options.json) {
        printJson(findings);
        return;
    }
    for (const auto &value : findings) {
        const QJsonObject finding = value.toObject();
        printLine(QStringLiteral("%1: %2: %3. Remedy: %4.")
                      .arg(finding.value(QStringLiteral("severity")).toString(),
                          finding.value(QStringLiteral("subject")).toString(),
                          finding.value(QStringLiteral("problem")).toString(),
                          finding.value(QStringLiteral("remedy")).toString()));
    }
    if (findings.isEmpty())
        printLine(QStringLiteral("Nothing to report."));
}

} // namespace

void addCheckCommand(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<CheckOptions>();
    CLI::App *command = app.add_subcommand("check", "Report what would not work, with its remedy");
    command->add_option("--user", options->user, "Take this user for the one that the daemon runs as");
    command->add_flag(
        "--spare-working", options->spareWorking, "Do not connect to the servers of outputs that work");
    command->add_flag("--json", options->json, "Write JSON");
    command->footer("Exit code: 0 nothing, 1 warnings only, 2 errors.");
    command->callback([&context, options] { check(context, *options); });
}
