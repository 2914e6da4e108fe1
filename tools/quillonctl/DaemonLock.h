#pragma once

#include <QString>

/// Whether a daemon works on this existing database file: whether the lock beside it is held. False, too,
/// when that cannot be told. Where nobody holds the lock this takes it for an instant, and a daemon that
/// starts in just that instant tries again.
bool daemonRuns(const QString &databasePath);
