#pragma once

#include "config/ConfigDatabase.h"
#include "support/Literals.h"

#include <QtSql>
#include <QtTest>

/// A store of its own on any path, as a new process would have it.
class FreshDatabase : public ConfigDatabase
{
public:
    explicit FreshDatabase(const QString &path) : ConfigDatabase(withoutConnection(path)) { }

private:
    static QString withoutConnection(const QString &path)
    {
        QSqlDatabase::removeDatabase(QLatin1String(QSqlDatabase::defaultConnection));
        return path;
    }
};

/// A database file in a folder of its own, read and written beside the system under test as an outside tool
/// would. There is no file until something makes it.
class TestDatabase
{
public:
    QString path() const { return file("quillon.sqlite"_s); }
    QString folder() const { return m_folder.path(); }
    /// The path of a file beside the database.
    QString file(const QString &name) const { return m_folder.filePath(name); }
    QByteArray readFile(const QString &name) const
    {
        QFile read(file(name));
        return read.open(QIODevice::ReadOnly) ? read.readAll() : QByteArray();
    }
    /// Writes a whole file, for its owner to read, write and run; yields its path.
    QString writeFile(const QString &name, const QByteArray &content) const
    {
        QFile written(file(name));
        if (!written.open(QIODevice::WriteOnly) || written.write(content) != content.size())
            qFatal("%s", qPrintable(written.errorString()));
        written.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        return written.fileName();
    }

    /// Runs one statement on a connection of its own; fails the test run when SQLite refuses it.
    /// Yields the values, joined by "|" within a row and by line ends between rows.
    QString run(const QString &statement, const QVariantList &values = {}) const
    {
        QStringList rows;
        {
            QSqlDatabase database = QSqlDatabase::addDatabase("QSQLITE"_s, "outside tool"_s);
            database.setDatabaseName(path());
            database.open();
            QSqlQuery query(database);
            query.prepare(statement);
            for (const QVariant &value : values)
                query.addBindValue(value);
            if (!query.exec())
                qFatal("%s: %s", qPrintable(statement), qPrintable(query.lastError().text()));
            while (query.next()) {
                QStringList row;
                for (int column = 0; column < query.record().count(); ++column)
                    row.append(query.value(column).toString());
                rows.append(row.join(u'|'));
            }
        }
        QSqlDatabase::removeDatabase("outside tool"_s);
        return rows.join(u'\n');
    }

    /// Writes a system_configuration value, replacing what was there.
    void setKey(const QString &key, const QString &value) const
    {
        run("DELETE FROM system_configuration WHERE name = ?"_s, {key});
        run("INSERT INTO system_configuration (name, value) VALUES (?, ?)"_s, {key, value});
    }
    /// Inserts an enabled output and returns its row id.
    int addForwarder(const QString &type, const QString &target = {}, int port = 0,
        const QString &secret = {}, const QString &context = {}) const
    {
        const QString insertion = "INSERT INTO data_forwarder (type, target, port, secret, context, enabled,"
                                  " status) VALUES (?, ?, ?, ?, ?, 1, 0) RETURNING ids"_s;
        return run(insertion, {type, target, QString::number(port), secret, context}).toInt();
    }
    int forwarderStatus(int id) const
    {
        return run("SELECT status FROM data_forwarder WHERE ids = ?"_s, {id}).toInt();
    }
    /// Inserts the row of a radio that is driven at any speed; STATIC ports need no enumeration.
    void addRadio(const QString &port, const QString &name = {}, bool enabled = true,
        const QString &method = "STATIC"_s) const
    {
        run("INSERT INTO radio_adapters VALUES (NULL, ?, ?, ?, 1, 1, 0, ?, 0, 0, '')"_s,
            {method, port, name, enabled});
    }

private:
    QTemporaryDir m_folder;
};

/// Another program that has run statements on the file; by itself it keeps everyone else from the file.
class OtherProgram : public QProcess
{
public:
    explicit OtherProgram(const TestDatabase &file, const QByteArray &statements = "BEGIN EXCLUSIVE;")
    {
        start("sqlite3"_s, {file.path()});
        write(statements + "\n.shell echo done\n");
        waitForReadyRead();
    }
    ~OtherProgram() override
    {
        kill();
        waitForFinished();
    }
    /// Pauses for some seconds, runs further statements and ends.
    void goOn(int pause, const QByteArray &statements)
    {
        write(".shell sleep " + QByteArray::number(pause) + '\n' + statements + '\n');
        waitForBytesWritten();
        closeWriteChannel();
    }
};
