#include "app/SupervisionManager.h"

#include "config/ConfigDatabase.h"
#include "protocol/ActionCommands.h"
#include "serial/SerialDiscoverer.h"

#include <QCoreApplication>
#include <QDebug>
#include <QProcess>

namespace {

constexpr int checkInterval = 2000; // ms
const QString displayPrefix = QStringLiteral("DISP,");
const QString rebootProgram = QStringLiteral("/sbin/reboot");

} // namespace

SupervisionManager::SupervisionManager(QObject *parent, const QSharedPointer<SerialDiscoverer> &discoverer)
    : QObject(parent), m_discoverer(discoverer)
{
    m_checkTimer.setInterval(checkInterval);
    connect(&m_checkTimer, &QTimer::timeout, this, &SupervisionManager::configuration_check_timeout);
    m_checkTimer.start();
}

void SupervisionManager::configuration_check_timeout()
{
    ConfigDatabase *database = ConfigDatabase::getInstance();
    if (!database->hasPendingActions())
        return;
    const QString command = database->getFirstPendingActions();
    qInfo() << "Command : " << command;
    if (command == QLatin1String("RESTART_APP"))
        QCoreApplication::exit(0); // whoever launched the daemon starts it again
    else if (command == QLatin1String("REBOOT"))
        QProcess::execute(rebootProgram, {});
    else if (command.startsWith(displayPrefix, Qt::CaseInsensitive))
        showOnEveryRadio(command);
}

void SupervisionManager::showOnEveryRadio(const QString &command)
{
    // Removed wherever it stands, and in capitals only, although any case got here, on purpose.
    QString text = command;
    text.remove(displayPrefix, Qt::CaseSensitive);
    text.remove(QLatin1Char('"'));
    m_discoverer->broadcastCommand(
        QSharedPointer<DisplayTextCommand>::create(this, text, DisplayTextCommand::defaultDelay));
}
