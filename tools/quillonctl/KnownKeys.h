#pragma once

#include <QString>
#include <QVector>

/// A system key that the daemon knows: what it means and what it may hold.
struct KnownKey
{
    enum Kind {
        Switch, ///< true or false
        Login, ///< text that is sent to the resource-management service as it stands
        Text,
        Email,
        ServiceUrl, ///< https://HOST or https://HOST:PORT
        Number, ///< a whole number from 1
        ReadOnly, ///< kept by the daemon
    };

    QString name;
    Kind kind;
    bool secret;
    bool readAtStart; ///< a change counts from the next restart on
    QString allowed;
    QString meaning;
};

/// The keys in the order in which they are listed.
const QVector<KnownKey> &knownKeys();
/// The key of this name, or null.
const KnownKey *findKnownKey(const QString &name);
/// What keeps the daemon from using a value; empty when nothing does.
QString valueProblem(const KnownKey &key, const QString &value);
