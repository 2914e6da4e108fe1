#pragma once

#include <QDebug>
#include <QSqlError>
#include <QSqlQuery>

/// SQLite's result code without what extends it; 0 when the database was not open.
inline int primaryResultCode(const QSqlError &error)
{
    return error.nativeErrorCode().toInt() & 0xff;
}

/// Executes a query that has just been prepared and bound; one whose preparation failed keeps that error.
inline bool executePrepared(QSqlQuery &query)
{
    return !query.lastError().isValid() && query.exec();
}

/// Logs a statement that failed under the signature text of its operation; returns whether it succeeded.
inline bool checkStatement(bool succeeded, const char *operation, const QSqlQuery &query)
{
    if (!succeeded)
        qInfo() << operation << " : error caught : " << query.lastError();
    return succeeded;
}
