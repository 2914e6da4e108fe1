#pragma once

#include "tools/quillonctl/CommandContext.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

// One function per family of commands. Each adds its subcommands to `app`; a subcommand runs while the
// command line is parsed, throws CommandError when it cannot do its work, and refers to `context`, which has
// to outlive the parsing.

void addStatusCommand(CLI::App &app, CommandContext &context);
void addRadioCommands(CLI::App &app, CommandContext &context);
void addPortCommands(CLI::App &app, CommandContext &context);
void addForwarderCommands(CLI::App &app, CommandContext &context);
void addConfigCommands(CLI::App &app, CommandContext &context);
void addQueueCommands(CLI::App &app, CommandContext &context);
void addOutboxCommands(CLI::App &app, CommandContext &context);
void addInitCommand(CLI::App &app, CommandContext &context);
void addWatchCommand(CLI::App &app, CommandContext &context);
void addCheckCommand(CLI::App &app, CommandContext &context);
void addConsoleCommands(CLI::App &app, CommandContext &context);
