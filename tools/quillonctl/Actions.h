#pragma once

#include "tools/quillonctl/ConfigFile.h"

#include <string>

// What can be had done to the daemon, whoever asks for it. Arguments are UTF-8; one that cannot be used
// throws CommandError.

/// Queues a text for every display; returns what is left of it there.
QString queueText(const ConfigFile &file, const std::string &text);
/// Queues an action that makes no sense twice; false when it is pending already.
bool queueOnce(const ConfigFile &file, const QString &command);
bool queueRestart(const ConfigFile &file);

/// Changes columns of a radio, which has to exist.
void changeRadio(const ConfigFile &file, int id, const QVariantMap &columns);
void renameRadio(const ConfigFile &file, int id, const std::string &name);
void enableRadio(const ConfigFile &file, int id, bool enabled);

/// Adds an output, with what the columns leave open empty; returns its id.
int insertOutput(const ConfigFile &file, const QString &type, const QVariantMap &columns, bool enabled);
/// Switches the first STREAM output on, or adds one at the usual place; returns its id.
int addStream(const ConfigFile &file);
