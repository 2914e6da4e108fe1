#include "app/TerminationSignals.h"
#include "tools/console/Console.h"
#include "tools/console/Server.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Listing.h"
#include "tools/quillonctl/Program.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <csignal>
#include <cstdio>
#include <malloc.h>

namespace {

const QString configFileOption = QStringLiteral("configfile");
const QString listenOption = QStringLiteral("listen");
const QString certificateOption = QStringLiteral("certificate");
const QString keyOption = QStringLiteral("key");
const QString behindProxyOption = QStringLiteral("behind-proxy");
const QString helpOption = QStringLiteral("help");
const QString versionOption = QStringLiteral("version");

/// Memory that a request took goes back to the system: a password's hash takes 16 MiB.
void limitMemory()
{
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    mallopt(M_TRIM_THRESHOLD, 256 * 1024);
}

void addOptions(QCommandLineParser &parser)
{
    parser.setApplicationDescription(
        QStringLiteral("Serves a page that shows what the Quillon gateway hears and does."));
    parser.addOptions({
        {{QStringLiteral("c"), configFileOption}, QStringLiteral("The daemon's configuration file."),
            QStringLiteral("file")},
        {listenOption, QStringLiteral("ADDRESS:PORT or [IPv6]:PORT, else 127.0.0.1:8470."),
            QStringLiteral("place"), QStringLiteral("127.0.0.1:8470")},
        {certificateOption, QStringLiteral("PEM file, with its chain: speak TLS."), QStringLiteral("file")},
        {keyOption, QStringLiteral("PEM file with the certificate's private key."), QStringLiteral("file")},
        {behindProxyOption,
            QStringLiteral("Take the client's address from X-Forwarded-For of a proxy on this machine.")},
        {{QStringLiteral("h"), helpOption}, QStringLiteral("Print this help.")},
        {versionOption, QStringLiteral("Print the version.")},
    });
}

/// What is wrong with the command line; empty when nothing is.
QString problemOf(const QCommandLineParser &options)
{
    const QStringList surplus = options.positionalArguments();
    if (!options.errorText().isEmpty())
        return options.errorText().chopped(1); // its full stop
    if (!surplus.isEmpty())
        return QStringLiteral("nothing is known to do with %1").arg(surplus.first());
    if (!options.isSet(configFileOption))
        return QStringLiteral("--configfile is required");
    for (const QString &name : {configFileOption, listenOption, certificateOption, keyOption}) {
        if (options.values(name).size() > 1)
            return QStringLiteral("--%1 is given twice").arg(name);
    }
    if (options.isSet(certificateOption) != options.isSet(keyOption))
        return QStringLiteral("--certificate and --key need each other");
    return {};
}

QHostAddress checkedAddress(const QString &host)
{
    const QHostAddress address(host == QLatin1String("localhost") ? QStringLiteral("127.0.0.1") : host);
    if (address.isNull())
        throw CommandError(QStringLiteral("--listen takes an address, not the name %1").arg(host));
    return address;
}

void requirePassword(const QString &configFile, const QString &place, bool loopbackOnly)
{
    const PasswordFile password(configFile);
    if (!password.exists()) {
        if (!loopbackOnly)
            throw CommandError(
                QStringLiteral("a password is needed to listen %1: set one with quillonctl --configfile %2 "
                               "console password")
                    .arg(place, configFile));
    } else if (!password.problem().isEmpty()) {
        throw CommandError(password.problem());
    }
}

int serve(const QCommandLineParser &options)
{
    const QString configFile = checkedText(options.value(configFileOption).toStdString(),
        QStringLiteral("the path of the configuration file"), 4000);
    const HostPort listen = checkedHostPort(options.value(listenOption).toStdString());
    const bool isBehindProxy = options.isSet(behindProxyOption);
    const QHostAddress address = checkedAddress(listen.host);
    // Whoever reaches the proxy comes from this machine then.
    const bool loopbackOnly = address.isLoopback() && !isBehindProxy;
    requirePassword(configFile,
        isBehindProxy ? QStringLiteral("with --behind-proxy")
                      : QStringLiteral("on %1").arg(address.toString()),
        loopbackOnly);

    const TerminationSignals terminationSignals;
    Server server;
    if (options.isSet(certificateOption))
        server.useCertificate(options.value(certificateOption), options.value(keyOption));
    if (!server.listen(address, quint16(listen.port)))
        throw CommandError(QStringLiteral("cannot listen on %1: %2")
                               .arg(hostAndPort(listen.host, listen.port), server.errorString()));
    Console console(configFile, {loopbackOnly, isBehindProxy});
    QObject::connect(&server, &Server::requested, &console, &Console::handle);
    console.start();
    std::printf("quillon-console: %s://%s/\n", options.isSet(certificateOption) ? "https" : "http",
        hostAndPort(listen.host, listen.port).toUtf8().constData());
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int run(int argc, char *argv[])
{
    QCommandLineParser options;
    addOptions(options);
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromUtf8(argv[i]));
    options.parse(arguments);
    if (options.isSet(helpOption)) {
        std::fputs(options.helpText().toUtf8().constData(), stdout);
        return 0;
    }
    if (options.isSet(versionOption)) {
        std::puts("quillon-console " QUILLON_VERSION);
        return 0;
    }
    const QString problem = problemOf(options);
    if (!problem.isEmpty())
        throw CommandError(QStringLiteral("%1; see quillon-console --help").arg(problem));
    return serve(options);
}

} // namespace

int main(int argc, char *argv[])
{
    limitMemory();
    Q_INIT_RESOURCE(words); // the linker would leave it out of a static library
    std::signal(SIGPIPE, SIG_IGN);
    return runProgram("quillon-console", argc, argv, run);
}
