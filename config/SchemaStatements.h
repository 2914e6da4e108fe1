#pragma once

#include "config/SqlStatement.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QString>

#include <algorithm>
#include <iterator>
#include <sqlite3.h>

// What creation and migration of the file share.

inline const char *const checkDatabaseReleaseSignature = "void ConfigDatabase::checkDatabaseRelease()";
inline const QString insertKeyStatement =
    QStringLiteral("INSERT INTO system_configuration (name, value) VALUES (:name, :value)");

/// Whether a look-up failed for another reason than a file that has no such table, or is no database at all:
/// one that is locked or damaged, or a disk that fails, says nothing of the release.
inline bool cannotTellRelease(const QSqlQuery &query)
{
    const int code = primaryResultCode(query.lastError());
    return code != SQLITE_ERROR && code != SQLITE_NOTADB;
}

/// Whether an error is none of the statement's own: the file is locked, or the disk fails. SQLite may have
/// taken the transaction back then, and what follows would be stored alone.
inline bool endsTransaction(const QSqlError &error)
{
    constexpr int ownErrors[] = {SQLITE_ERROR, SQLITE_CONSTRAINT, SQLITE_MISMATCH};
    const int code = primaryResultCode(error);
    return error.isValid()
        && std::find(std::begin(ownErrors), std::end(ownErrors), code) == std::end(ownErrors);
}
