#pragma once

#include <QMap>
#include <QString>

// Where outputs keep what was not accepted yet: one file each, beside the configuration.

/// quillon.outbox-3.sqlite for the row 3 of quillon.sqlite.
QString outboxPath(const QString &configurationFile, int id);
/// The outboxes beside a configuration, by the id of their row, whether there is such a row or not.
QMap<int, QString> outboxFiles(const QString &configurationFile);
/// The name that a damaged outbox is moved aside under, with the time of day in UTC:
/// quillon.outbox-3.damaged-20260131T120000.sqlite. No file has it yet.
QString damagedOutboxPath(const QString &path);

/// Logs which outboxes beside the configuration belong to no row of the kind PUBSUB.
void logStrayOutboxes();
