#include "forwarders/CloudMessage.h"

#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "forwarders/RadioModels.h"
#include "protocol/IcomCommand.h"
#include "protocol/IcomCommandResponse.h"

#include <QHostInfo>
#include <QJsonDocument>
#include <QJsonObject>

CloudOwner CloudOwner::read()
{
    ConfigDatabase *database = ConfigDatabase::getInstance();
    return {database->getSystemConfigurationValue(OWNER_EMAIL_KEY),
        database->getSystemConfigurationValue(OWNER_DEPT_KEY)};
}

CloudMessage CloudMessage::received(
    const QSharedPointer<RadioAdapterConfig> &radio, const IcomCommandResponse &response)
{
    const QByteArray frame = response.data();
    const QString text = QString::fromUtf8(frame.constData(), frame.size()); // with its NUL bytes
    return {radio, QStringLiteral("RX"), text, response.timestamp(), {}};
}

CloudMessage CloudMessage::sent(const QSharedPointer<RadioAdapterConfig> &radio, IcomCommand &command)
{
    return {radio, QStringLiteral("TX"), command.announcedText(), command.timestamp(), {}};
}

void CloudMessage::askText()
{
    if (command)
        rawData = command->commandText();
    command.clear();
}

QByteArray CloudMessage::toJson(const CloudOwner &owner) const
{
    const QVariantMap fields{
        {QStringLiteral("port"), radio->port},
        {QStringLiteral("portDesc"), radio->name},
        {QStringLiteral("radioBand"), getRadioBand(radio->esn)},
        {QStringLiteral("radioModel"), getRadioModel(radio->esn)},
        {QStringLiteral("trx"), direction},
        {QStringLiteral("rawData"), rawData},
        {QStringLiteral("transmissionDate"), timestamp},
        {QStringLiteral("source"), QHostInfo::localHostName()},
        {QStringLiteral("owner_email"), owner.email},
        {QStringLiteral("owner_dept"), owner.department},
    };
    return QJsonDocument(QJsonObject::fromVariantMap(fields)).toJson(QJsonDocument::Compact);
}
