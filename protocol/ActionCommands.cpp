#include "protocol/ActionCommands.h"

#include "config/RadioAdapterConfig.h"
#include "protocol/RadioLink.h"
#include "serial/MyQSerialPort.h"

#include <QDebug>

namespace {

constexpr int displayWidth = 12; // characters
constexpr int scrollStep = 5; // characters
constexpr int scrollDelay = 100; // ms

const QString fiveToneCall = QStringLiteral("*SET,5T,TXCODE,%1");
const QString killCode = QStringLiteral("DC");

/// A value that holds its own placeholder would grow at each call, so it is left out.
void replacePlaceholder(QString *text, const QString &placeholder, const QString &value)
{
    if (!value.contains(placeholder, Qt::CaseInsensitive))
        text->replace(placeholder, value, Qt::CaseInsensitive);
}

} // namespace

DisplayTextCommand::DisplayTextCommand(QObject *parent, const QString &text, int delayMs)
    : IcomCommand(parent, Action), m_text(text), m_delayMs(delayMs)
{
}

QString DisplayTextCommand::commandText()
{
    if (const auto *link = qobject_cast<RadioLink *>(parent())) {
        replacePlaceholder(&m_text, QStringLiteral("<port>"), link->config()->port);
        replacePlaceholder(&m_text, QStringLiteral("<name>"), link->config()->name);
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

AnalogKillCommand::AnalogKillCommand(QObject *parent, const QString &code)
    : KillCommand(parent), m_code(code), m_announcedCode(code + killCode)
{
}

QString AnalogKillCommand::commandText()
{
    m_code.append(killCode);
    return fiveToneCall.arg(m_code);
}

QString AnalogKillCommand::announcedText()
{
    return fiveToneCall.arg(m_announcedCode);
}

DpmrKillCommand::DpmrKillCommand(QObject *parent, const QString &radioId)
    : KillCommand(parent), m_radioId(radioId)
{
}

QString DpmrKillCommand::commandText()
{
    return QStringLiteral("*SET,DPMR,TXSTAT,IND,%1,0047312,30,ACK").arg(m_radioId);
}
