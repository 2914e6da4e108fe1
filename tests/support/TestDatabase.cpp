#include "support/TestDatabase.h"

#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTest>

static const QString connectionName = QStringLiteral("outside tool");

TestDatabase::TestDatabase() : m_path(m_folder.filePath(QStringLiteral("quillon.sqlite"))) { }

Rows TestDatabase::run(const QString &statement, const QVariantList &values) const
{
    Rows rows;
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connectionName);
        database.setDatabaseName(m_path);
        database.open();
        QSqlQuery query(database);
        query.prepare(statement);
        for (const QVariant &value : values)
            query.addBindValue(value);
        if (!query.exec())
            qFatal("%s: %s", qPrintable(statement), qPrintable(query.lastError().text()));
        while (query.next()) {
            QVector<QVariant> row;
            for (int column = 0; column < query.record().count(); ++column)
                row.append(query.value(column));
            rows.append(row);
        }
    }
    QSqlDatabase::removeDatabase(connectionName);
    return rows;
}

QVariant TestDatabase::value(const QString &statement) const
{
    const Rows rows = run(statement);
    return rows.isEmpty() ? QVariant() : rows.first().first();
}

void TestDatabase::setKey(const QString &key, const QString &value) const
{
    run(QStringLiteral("DELETE FROM system_configuration WHERE name = ?"), {key});
    run(QStringLiteral("INSERT INTO system_configuration (name, value) VALUES (?, ?)"), {key, value});
}

int TestDatabase::addForwarder(
    const QString &type, const QString &target, int port, const QString &secret, const QString &context) const
{
    return run(
        QStringLiteral("INSERT INTO data_forwarder (type, target, port, secret, context, enabled, status)"
                       " VALUES (?, ?, ?, ?, ?, 1, 0) RETURNING ids"),
        {type, target, QString::number(port), secret, context})
        .first()
        .first()
        .toInt();
}

int TestDatabase::addStaticRadio(const QString &port, const QString &name) const
{
    return run(
        QStringLiteral("INSERT INTO radio_adapters (method, port, name, autobaud, tx_enabled, baudrate,"
                       " enabled, discovered, status, esn)"
                       " VALUES ('STATIC', ?, ?, 1, 1, 0, 1, 0, 0, '') RETURNING ids"),
        {port, name})
        .first()
        .first()
        .toInt();
}

bool TestDatabase::waitForValue(const QString &statement, const QVariant &expected, int timeoutMs) const
{
    return QTest::qWaitFor([&] { return value(statement) == expected; }, timeoutMs);
}
