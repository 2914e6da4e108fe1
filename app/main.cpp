#include "app/InstanceLock.h"
#include "app/LogHandler.h"
#include "app/SupervisionManager.h"
#include "app/SystemdNotifier.h"
#include "app/TerminationSignals.h"
#include "autokill/AutoKill.h"
#include "config/ConfigDatabase.h"
#include "forwarders/OutboxFiles.h"
#include "serial/SerialDiscoverer.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDebug>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

static constexpr int alreadyRunningCode = 2;

/// The path of the database file.
static QString readCommandLine(const QCoreApplication &application)
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
        return ConfigDatabase::defaultPath();
    }
    const QString path = parser.value(configFile);
    qInfo() << "Using custom configuration : " << path;
    return path.isEmpty() ? ConfigDatabase::defaultPath() : path;
}

/// A descriptor for standard input, output or error that is closed would be given to the next file or device
/// that is opened, and the log would be written there.
static void openStandardDescriptors()
{
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = ::open("/dev/null", O_RDWR);
    ::close(descriptor);
}

int main(int argc, char *argv[])
{
    qInstallMessageHandler(handleLogMessage);
    openStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN); // an output whose reader has gone is an error of that output, not the end
    QCoreApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Ostra Relief"));
    QCoreApplication::setApplicationName(QStringLiteral("Quillon"));
    QCoreApplication::setApplicationVersion(QStringLiteral("0.23.0"));
    const TerminationSignals terminationSignals;

    const QString path = readCommandLine(application);
    const InstanceLock lock(path); // before the database is touched, which resets what is another daemon's
    if (lock.isHeldElsewhere()) {
        qCritical() << "Another daemon uses the configuration file - exiting : " << path;
        return alreadyRunningCode;
    }
    ConfigDatabase::getInstance(path);
    AutoKill::getInstance()->startIfEnabled();

    const auto discoverer = QSharedPointer<SerialDiscoverer>::create();
    discoverer->initForwarders();
    logStrayOutboxes();
    const SupervisionManager supervisionManager(nullptr, discoverer); // goes first, the discoverer after it
    const SystemdNotifier systemdNotifier;

    return QCoreApplication::exec();
}
