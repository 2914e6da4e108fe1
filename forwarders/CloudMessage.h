#pragma once

#include "config/RadioAdapterConfig.h"

#include <QByteArray>
#include <QDateTime>
#include <QSharedPointer>
#include <QString>

class IcomCommand;
class IcomCommandResponse;

/// Who answers for this gateway, as the configuration says.
struct CloudOwner
{
    /// As it stands in the file.
    static CloudOwner read();

    QString email;
    QString department;
};

/// One frame or command on its way to a Pub/Sub topic: what the cloud outputs say about it.
struct CloudMessage
{
    static CloudMessage received(
        const QSharedPointer<RadioAdapterConfig> &radio, const IcomCommandResponse &response);
    /// Takes the command's text as it is announced, since a display text moves on when it is executed.
    static CloudMessage sent(const QSharedPointer<RadioAdapterConfig> &radio, IcomCommand &command);

    /// Ten fields as compact JSON with sorted keys: port, portDesc, radioBand, radioModel, trx, rawData,
    /// transmissionDate (ISO 8601 with milliseconds, UTC), source (this host's name), owner_email,
    /// owner_dept.
    QByteArray toJson(const CloudOwner &owner) const;

    bool isReceived() const { return direction == QLatin1String("RX"); }
    /// Asks `command` for the text, once.
    void askText();

    QSharedPointer<RadioAdapterConfig> radio;
    QString direction; ///< "RX" or "TX"
    QString rawData;
    QDateTime timestamp;
    QSharedPointer<IcomCommand>
        command; ///< one that is to be asked for its text when it is published, or null
};
