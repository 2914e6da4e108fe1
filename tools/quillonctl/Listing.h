#pragma once

#include "tools/quillonctl/ConfigFile.h"
#include "tools/quillonctl/Printer.h"

// The rows of the file as every listing shows them, in tables and as JSON. No secret is among them.

/// Radios: id, port, name, esn, model, band, speed, listenOnly, enabled, method, status, state.
QJsonArray radioRows(const ConfigFile &file);
/// Outputs: id, kind, target, topic, comment, enabled, status, state; of those that have one, outbox, which
/// holds waiting, oldest (in seconds), dropped and refused, or problem.
QJsonArray outputRows(const ConfigFile &file);
/// Actions that the daemon has yet to carry out: id, command.
QJsonArray pendingRows(const ConfigFile &file);
/// The names of the ports that are never opened.
QStringList blockedPorts(const ConfigFile &file);
/// Whether the daemon drops every frame of a radio: nothing finds out the speed of one that is only listened
/// to.
bool isDeaf(const ConfigFile &file, const QSqlRecord &radio);
/// The value of a system key, or "undefined".
QString systemValue(const ConfigFile &file, const QString &key);

/// Whether the daemon, when it starts on a file of this release, removes every output that is not GCP.
bool migrationRemovesOutputs(const QString &release);

void printRadios(const QJsonArray &radios, bool withSettings);
void printOutputs(const QJsonArray &outputs, bool withSettings);
/// The outboxes of these outputs, after an empty line; nothing when there are none.
void printOutboxesOf(const QJsonArray &outputs);
void printPending(const QJsonArray &actions);

/// HOST:PORT, with brackets around an IPv6 address.
QString hostAndPort(const QString &host, int port);
