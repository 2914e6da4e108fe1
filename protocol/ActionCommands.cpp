#include "protocol/ActionCommands.h"

#include "config/RadioAdapterConfig.h"
#include "protocol/RadioLink.h"
#include "serial/MyQSerialPort.h"

#include <QDebug>

namespace {

constexpr int displayWidth = 12; // characters
constexpr int scrollStep = 5; // characters
constexpr int scrollDelay = 100; // ms

} // namespace

DisplayTextCommand::DisplayTextCommand(QObject *parent, const QString &text, int delayMs)
    : IcomCommand(parent, Action), m_text(text), m_delayMs(delayMs)
{
}

QString DisplayTextCommand::commandText()
{
    if (const auto *link = qobject_cast<RadioLink *>(parent())) {
        m_text.replace(QStringLiteral("<port>"), link->config()->port, Qt::CaseInsensitive);
        m_text.replace(QStringLiteral("<name>"), link->config()->name, Qt::CaseInsensitive);
    }
    return QStringLiteral("*SET,UI,TEXT,%1").arg(m_text);
}

bool DisplayTextCommand::execute(MyQSerialPort *port)
{
    const QByteArray frame = framedText();
    queueFollowUp();
    return port->write(frame) != -1;
}

void DisplayTextCommand::queueFollowUp()
{
    auto *link = qobject_cast<RadioLink *>(parent());
    int delay = m_delayMs;
    QString followUp;
    if (m_text.size() > displayWidth) {
        m_text.remove(0, scrollStep);
        followUp = m_text;
        delay = scrollDelay;
    } else if (m_text.isEmpty()) {
        return;
    }
    if (link)
        link->addDelayedCommand(
            QSharedPointer<DisplayTextCommand>::create(nullptr, followUp, defaultDelay), delay);
}

KillCommand::KillCommand(QObject *parent) : IcomCommand(parent, Action) { }

bool KillCommand::execute(MyQSerialPort *)
{
    qInfo() << "PCCMDV2 Command to send : " << commandText();
    return true;
}

AnalogKillCommand::AnalogKillCommand(QObject *parent, const QString &code) : KillCommand(parent), m_code(code)
{
}

QString AnalogKillCommand::commandText()
{
    m_code.append(QStringLiteral("DC"));
    return QStringLiteral("*SET,5T,TXCODE,%1").arg(m_code);
}

DpmrKillCommand::DpmrKillCommand(QObject *parent, const QString &radioId)
    : KillCommand(parent), m_radioId(radioId)
{
}

QString DpmrKillCommand::commandText()
{
    return QStringLiteral("*SET,DPMR,TXSTAT,IND,%1,0047312,30,ACK").arg(m_radioId);
}
