#pragma once

/// Runs a program as a Qt application, with arguments in UTF-8. What it throws, and warnings of the shared
/// code, become lines on standard error that begin with its name; the exit code is 2 when it has thrown.
int runProgram(const char *name, int argc, char *argv[], int (*run)(int argc, char *argv[]));
