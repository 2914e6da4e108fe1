#include "app/LogHandler.h"
#include "app/TerminationSignals.h"
#include "autokill/AutoKill.h"
#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "serial/SerialDiscoverer.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDebug>

static void readCommandLine(const QCoreApplication &application)
{
    const QCommandLineOption configFile({QStringLiteral("c"), QStringLiteral("configfile")},
        QCoreApplication::translate("main", "Configuration file (default is /tmp/ostraForwarder.sqlite)."),
        QCoreApplication::translate("main", "file"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QCoreApplication::applicationName());
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOption(configFile);
    parser.process(application);

    if (!parser.isSet(configFile)) {
        qInfo() << "Using default configuration";
        return;
    }
    const QString path = parser.value(configFile);
    qInfo() << "Using custom configuration : " << path;
    if (!path.isEmpty())
        ConfigDatabase::getInstance(path);
}

int main(int argc, char *argv[])
{
    qInstallMessageHandler(handleLogMessage);
    QCoreApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Ostra Relief"));
    QCoreApplication::setApplicationName(QStringLiteral("Quillon"));
    QCoreApplication::setApplicationVersion(QStringLiteral("0.23.0"));
    const TerminationSignals terminationSignals;

    readCommandLine(application);
    const QString autoKill = ConfigDatabase::getInstance()->getSystemConfigurationValue(AUTOKILL_ENABLED_KEY);
    if (autoKill.toUpper() == QLatin1String("TRUE"))
        AutoKill::getInstance()->start();

    SerialDiscoverer discoverer;
    discoverer.initForwarders();

    return QCoreApplication::exec();
}
