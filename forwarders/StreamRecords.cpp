#include "forwarders/StreamRecords.h"

#include "forwarders/RadioModels.h"
#include "protocol/ActionCommands.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"

#include <QCoreApplication>
#include <QHostInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextCodec>

namespace {

using Response = IcomCommandResponse;

struct FrameKind
{
    int type;
    QLatin1String name;
};

const FrameKind frameKinds[] = {
    {Response::Esn, QLatin1String("esn")},
    {Response::CloningComment, QLatin1String("comment")},
    {Response::DspFirmware, QLatin1String("dspFirmware")},
    {Response::FirmwareVersion, QLatin1String("firmware")},
    {Response::FrontFirmware, QLatin1String("frontFirmware")},
    {Response::DpmrCall, QLatin1String("dpmrCall")},
    {Response::AnalogCall, QLatin1String("analogCall")},
    {Response::DpmrStatus, QLatin1String("dpmrStatus")},
    {Response::DpmrGpsLocation, QLatin1String("gps")},
    {Response::BatteryLimitation, QLatin1String("battery")},
    {Response::TxPowerLimitation, QLatin1String("txPower")},
};

template <typename Class>
const Class &castFor(QString (Class::*)() const, const Response &response)
{
    return static_cast<const Class &>(response); // its type has told its class
}

template <auto accessor>
QString read(const Response &response)
{
    return (castFor(accessor, response).*accessor)();
}

/// What the responses of one type know, each under the name of its accessor.
struct Field
{
    int type;
    QLatin1String name;
    QString (*read)(const Response &);
};

const Field fields[] = {
    {Response::Esn, QLatin1String("esn"), read<&RetrieveEsnCommandResponse::esn>},
    {Response::CloningComment, QLatin1String("comment"),
        read<&RetrieveCloningCommentCommandResponse::comment>},
    {Response::DspFirmware, QLatin1String("dspVersion"),
        read<&RetrieveDspFirmwareCommandResponse::dspVersion>},
    {Response::DspFirmware, QLatin1String("dspInfo"), read<&RetrieveDspFirmwareCommandResponse::dspInfo>},
    {Response::FirmwareVersion, QLatin1String("firmwareVersion"),
        read<&RetrieveFirmwareVersionCommandResponse::firmwareVersion>},
    {Response::FirmwareVersion, QLatin1String("firmwareCode"),
        read<&RetrieveFirmwareVersionCommandResponse::firmwareCode>},
    {Response::FirmwareVersion, QLatin1String("firmwareInfo"),
        read<&RetrieveFirmwareVersionCommandResponse::firmwareInfo>},
    {Response::FrontFirmware, QLatin1String("frontVersion"),
        read<&RetrieveFrontFirmwareCommandResponse::frontVersion>},
    {Response::FrontFirmware, QLatin1String("frontInfo"),
        read<&RetrieveFrontFirmwareCommandResponse::frontInfo>},
    {Response::DpmrCall, QLatin1String("field1"), read<&DpmrNotification::field1>},
    {Response::DpmrCall, QLatin1String("callerId"), read<&DpmrNotification::callerId>},
    {Response::DpmrCall, QLatin1String("field3"), read<&DpmrNotification::field3>},
    {Response::DpmrCall, QLatin1String("field4"), read<&DpmrNotification::field4>},
    {Response::AnalogCall, QLatin1String("code"), read<&RetrieveReceivedAnalogCallCommandResponse::code>},
    {Response::AnalogCall, QLatin1String("field2"), read<&RetrieveReceivedAnalogCallCommandResponse::field2>},
    {Response::AnalogCall, QLatin1String("field3"), read<&RetrieveReceivedAnalogCallCommandResponse::field3>},
    {Response::DpmrStatus, QLatin1String("field1"), read<&DpmrNotification::field1>},
    {Response::DpmrStatus, QLatin1String("callerId"), read<&DpmrNotification::callerId>},
    {Response::DpmrStatus, QLatin1String("field3"), read<&DpmrNotification::field3>},
    {Response::DpmrStatus, QLatin1String("field4"), read<&DpmrNotification::field4>},
    {Response::DpmrStatus, QLatin1String("field5"), read<&RetrieveReceivedDpmrStatusCommandResponse::field5>},
    {Response::DpmrGpsLocation, QLatin1String("field1"), read<&DpmrNotification::field1>},
    {Response::DpmrGpsLocation, QLatin1String("callerId"), read<&DpmrNotification::callerId>},
    {Response::DpmrGpsLocation, QLatin1String("field3"), read<&DpmrNotification::field3>},
    {Response::DpmrGpsLocation, QLatin1String("field4"), read<&DpmrNotification::field4>},
    {Response::DpmrGpsLocation, QLatin1String("message"),
        read<&RetrieveReceivedDpmrGpsLocationCommandResponse::message>},
    {Response::BatteryLimitation, QLatin1String("state"), read<&Alert::state>},
    {Response::TxPowerLimitation, QLatin1String("state"), read<&Alert::state>},
};

const QLatin1String stateNames[] = {
    QLatin1String("searching"), QLatin1String("identified"), QLatin1String("stopped")};

QLatin1String kindOf(const Response &response)
{
    for (const FrameKind &kind : frameKinds) {
        if (kind.type == response.responseType())
            return kind.name;
    }
    return QLatin1String("unsolicited");
}

QLatin1String kindOf(const IcomCommand &command)
{
    if (command.expectsResponse())
        return QLatin1String("query");
    return QLatin1String(qobject_cast<const KillCommand *>(&command) ? "kill" : "display");
}

QJsonObject fieldsOf(const Response &response)
{
    QJsonObject result;
    for (const Field &field : fields) {
        if (field.type == response.responseType())
            result.insert(field.name, field.read(response));
    }
    return result;
}

QString isoTime(const QDateTime &time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

QByteArray line(const QJsonObject &record)
{
    return QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n';
}

/// What every record about a radio holds.
QJsonObject aboutRadio(const char *record, const RadioAdapterConfig &radio, const QDateTime &time)
{
    const RadioModel &model = findRadioModel(radio.esn);
    return {
        {QStringLiteral("record"), QLatin1String(record)},
        {QStringLiteral("time"), isoTime(time)},
        {QStringLiteral("port"), radio.port},
        {QStringLiteral("name"), radio.name},
        {QStringLiteral("esn"), radio.esn},
        {QStringLiteral("model"), model.model},
        {QStringLiteral("band"), model.band},
    };
}

QJsonObject aboutTraffic(const char *record, const RadioAdapterConfig &radio, const QDateTime &time,
    QLatin1String kind, const QString &text)
{
    QJsonObject result = aboutRadio(record, radio, time);
    result.insert(QStringLiteral("gateway"), QHostInfo::localHostName());
    result.insert(QStringLiteral("kind"), kind);
    result.insert(QStringLiteral("fields"), QJsonObject());
    result.insert(QStringLiteral("text"), text);
    return result;
}

} // namespace

QByteArray StreamRecords::gateway()
{
    return line({
        {QStringLiteral("record"), QStringLiteral("gateway")},
        {QStringLiteral("version"), QCoreApplication::applicationVersion()},
        {QStringLiteral("gateway"), QHostInfo::localHostName()},
        {QStringLiteral("time"), isoTime(QDateTime::currentDateTimeUtc())},
    });
}

QByteArray StreamRecords::radio(
    const RadioAdapterConfig &radio, RadioLink::State state, const QDateTime &since)
{
    QJsonObject record = aboutRadio("radio", radio, since);
    record.insert(QStringLiteral("state"), stateNames[state]);
    return line(record);
}

QByteArray StreamRecords::frame(const RadioAdapterConfig &radio, const IcomCommandResponse &response)
{
    const QByteArray data = response.data();
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader); // a byte order mark is a part of the text
    QString text = QTextCodec::codecForName("UTF-8")->toUnicode(data.constData(), data.size(), &state);
    if (state.remainingChars > 0) // it ends within a character
        text.append(QChar::ReplacementCharacter);
    QJsonObject record = aboutTraffic("frame", radio, response.timestamp(), kindOf(response), text);
    record.insert(QStringLiteral("fields"), fieldsOf(response));
    if (state.invalidChars > 0 || state.remainingChars > 0)
        record.insert(QStringLiteral("raw"), QString::fromLatin1(data.toBase64()));
    return line(record);
}

QByteArray StreamRecords::command(const RadioAdapterConfig &radio, IcomCommand &command)
{
    return line(
        aboutTraffic("command", radio, command.timestamp(), kindOf(command), command.announcedText()));
}

QByteArray StreamRecords::lost(qint64 count)
{
    return line({{QStringLiteral("record"), QStringLiteral("lost")}, {QStringLiteral("count"), count}});
}
