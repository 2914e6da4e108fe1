#pragma once

#include <QString>
#include <QTemporaryDir>
#include <QVariant>
#include <QVector>

using Rows = QVector<QVector<QVariant>>;

/// A database file in a folder of its own, read and written beside the system under test as an outside tool
/// would. The first one of a process also becomes the file of ConfigDatabase::getInstance().
class TestDatabase
{
public:
    /// A path in a new folder; no file yet.
    TestDatabase();

    QString path() const { return m_path; }
    QString folder() const { return m_folder.path(); }
    /// Runs one statement on a connection of its own; fails the test run when SQLite refuses it.
    Rows run(const QString &statement, const QVariantList &values = {}) const;
    /// The first value of the first row.
    QVariant value(const QString &statement) const;
    /// Writes a system_configuration value, replacing what was there.
    void setKey(const QString &key, const QString &value) const;
    /// Inserts an enabled output and returns its row id.
    int addForwarder(const QString &type, const QString &target, int port = 0, const QString &secret = {},
        const QString &context = {}) const;
    /// Inserts an enabled adapter row for a port that the enumeration does not list; returns its row id.
    int addStaticRadio(const QString &port, const QString &name) const;
    /// Waits for a value to become what is expected; false after the time-out in ms.
    bool waitForValue(const QString &statement, const QVariant &expected, int timeoutMs = 10000) const;

private:
    QTemporaryDir m_folder;
    QString m_path;
};
