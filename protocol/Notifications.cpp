#include "protocol/Notifications.h"

#include "autokill/AutoKill.h"
#include "protocol/ActionCommands.h"
#include "protocol/Frame.h"
#include "protocol/RadioLink.h"

#include <QDebug>
#include <QRegExp>

namespace {

using Response = QSharedPointer<IcomCommandResponse>;

constexpr int analogKillDelay = 1000; // ms after the 5-tone code

struct AlertText
{
    QLatin1String state;
    const char *logLine;
};

// The first row that fits is logged. The last one is shadowed by the row before it, on purpose.
const AlertText batteryTexts[] = {
    {QLatin1String("N"), "Battery alert recovered."},
    {QLatin1String("H"), "Battery alert Overvoltage."},
    {QLatin1String("L1"), "Battery alert : 10.43V < Vin < 11.05V"},
    {QLatin1String("L1"), "Battery alert : undervoltage below 10.43V"},
};
const AlertText txPowerTexts[] = {
    {QLatin1String("OFF"), "Tx Power limitation disabled - alert recovered."},
    {QLatin1String("ON"), "Tx Power limitation enabled."},
};

template <size_t N>
void logAlert(const AlertText (&texts)[N], const QString &state)
{
    for (const AlertText &text : texts) {
        if (state == text.state) {
            qInfo() << text.logLine;
            return;
        }
    }
}

Response unsollicited(QObject *adapter, const QByteArray &frame)
{
    return QSharedPointer<UnsollicitedCommandResponse>::create(adapter, frame);
}

/// A line may have fields before those of the notification; QRegExp leaves some of them in the first capture.
QStringList lastFields(QStringList captures)
{
    captures.first() = captures.first().section(QLatin1Char(','), -1);
    return captures;
}

// Each builder gets the frame and the captures of its pattern, the whole match first.

template <typename Notification>
Response buildDpmr(QObject *adapter, const QByteArray &frame, const QStringList &captures)
{
    return QSharedPointer<Notification>::create(adapter, frame, lastFields(captures.mid(1)));
}

Response buildAnalogCall(QObject *adapter, const QByteArray &frame, const QStringList &captures)
{
    return QSharedPointer<RetrieveReceivedAnalogCallCommandResponse>::create(
        adapter, frame, captures.at(1), captures.at(2), captures.at(3));
}

Response buildMessage(QObject *adapter, const QByteArray &frame, const QStringList &captures)
{
    if (captures.at(5) != QLatin1String("GPS"))
        return unsollicited(adapter, frame);
    return QSharedPointer<RetrieveReceivedDpmrGpsLocationCommandResponse>::create(
        adapter, frame, lastFields(captures.mid(1, 4)) << captures.at(6));
}

template <typename Notification>
Response buildAlert(QObject *adapter, const QByteArray &frame, const QStringList &captures)
{
    return QSharedPointer<Notification>::create(adapter, frame, captures.at(1));
}

struct NotificationKind
{
    const char *keyword;
    const QString pattern;
    Response (*build)(QObject *adapter, const QByteArray &frame, const QStringList &captures);
    bool droppedWhenMalformed;
};

/// In the order in which they are tried: the first keyword that the frame holds decides.
const NotificationKind kinds[] = {
    {"RXVCALL", QStringLiteral(R"(^\*NTF\,DPMR\,RXVCALL\,.*\,(.*),(.*),(.*),(.*)$)"),
        buildDpmr<RetrieveReceivedDpmrCallCommandResponse>, false},
    {"RXCODE", QStringLiteral(R"(^\*NTF\,5T\,RXCODE\,(.*),(.*),(.*)$)"), buildAnalogCall, false},
    {"RXSTAT", QStringLiteral(R"(^\*NTF\,DPMR\,RXSTAT\,.*\,(.*),(.*),(.*),(.*),(.*)$)"),
        buildDpmr<RetrieveReceivedDpmrStatusCommandResponse>, false},
    {"RXMSG", QStringLiteral(R"re(^\*NTF\,DPMR\,RXMSG\,.*\,(.*),(.*),(.*),(.*),(.*),\"(.*)\"$)re"),
        buildMessage, true},
    {"BATVST", QStringLiteral(R"re(^\*NTF\,CTRL\,BATVST\,(.*)"$)re"), buildAlert<BatteryLimitationAlert>,
        false},
    {"RFPWRST", QStringLiteral(R"re(^\*NTF\,CTRL\,RFPWRST\,(.*)"$)re"), buildAlert<TxPowerLimitationAlert>,
        false},
};

} // namespace

QSharedPointer<IcomCommandResponse> parseNotification(QObject *adapter, const QByteArray &frame)
{
    for (const NotificationKind &kind : kinds) {
        if (!frame.contains(kind.keyword))
            continue;
        const QRegExp pattern(kind.pattern);
        if (pattern.indexIn(Frame::toText(frame)) != -1)
            return kind.build(adapter, frame, pattern.capturedTexts());
        return kind.droppedWhenMalformed ? Response() : unsollicited(adapter, frame);
    }
    return unsollicited(adapter, frame);
}

DpmrNotification::DpmrNotification(QObject *parent, const QByteArray &data, const QStringList &fields)
    : IcomCommandResponse(parent, data), m_fields(fields)
{
}

void DpmrNotification::process()
{
    if (!AutoKill::getInstance()->isFlagged(callerId()))
        return;
    qInfo() << "Blacklisted radio detected : " << callerId();
    if (auto *link = qobject_cast<RadioLink *>(parent()))
        link->enqueueCommand(QSharedPointer<DpmrKillCommand>::create(nullptr, callerId()));
}

RetrieveReceivedAnalogCallCommandResponse::RetrieveReceivedAnalogCallCommandResponse(QObject *parent,
    const QByteArray &data, const QString &code, const QString &field2, const QString &field3)
    : IcomCommandResponse(parent, data), m_code(code), m_field2(field2), m_field3(field3)
{
}

void RetrieveReceivedAnalogCallCommandResponse::process()
{
    if (!AutoKill::getInstance()->isFlagged(QStringLiteral("00") + m_code))
        return;
    qInfo() << "Blacklisted radio detected : " << m_code;
    if (auto *link = qobject_cast<RadioLink *>(parent()))
        link->addDelayedCommand(QSharedPointer<AnalogKillCommand>::create(nullptr, m_code), analogKillDelay);
}

Alert::Alert(QObject *parent, const QByteArray &data, const QString &state)
    : IcomCommandResponse(parent, data), m_state(state)
{
}

void BatteryLimitationAlert::process()
{
    logAlert(batteryTexts, state());
}

void TxPowerLimitationAlert::process()
{
    logAlert(txPowerTexts, state());
}
