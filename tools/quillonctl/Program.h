#pragma once

#include <CLI/App.hpp>

// What the operator's programs have in common around their command line.

/// Runs a program as a Qt application. What it throws, and warnings of the shared code, become lines on
/// standard error that begin with its name; the exit code is 2 when it has thrown.
int runProgram(const char *name, int argc, char *argv[], int (*run)(int argc, char *argv[]));

/// Takes the command line, in UTF-8. False when it asked for the help or the version, which are printed then;
/// throws CommandError when it is wrong.
bool parseArguments(CLI::App &app, int argc, char *argv[]);
