#include "app/TerminationSignals.h"
#include "tools/console/Console.h"
#include "tools/console/Server.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Listing.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <QCoreApplication>
#include <QTextCodec>

#include <csignal>
#include <cstdio>
#include <malloc.h>

namespace {

const int failureCode = 2;

struct Options
{
    std::string configFile;
    std::string listen = "127.0.0.1:8470";
    std::string certificate;
    std::string key;
    bool behindProxy = false;
};

void printError(const QString &message)
{
    std::fprintf(stderr, "quillon-console: %s\n", message.toUtf8().constData());
}

/// Lines of the shared code that are meant for the daemon's log stay out of the way.
void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        printError(message);
}

/// Memory that a request took goes back to the system: a password's hash takes 16 MiB.
void limitMemory()
{
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    mallopt(M_TRIM_THRESHOLD, 256 * 1024);
}

void addOptions(CLI::App &app, Options &options)
{
    app.set_version_flag("--version", "quillon-console " QUILLON_VERSION);
    app.add_option("-c,--configfile", options.configFile, "The daemon's configuration file")->required();
    app.add_option("--listen", options.listen, "ADDRESS:PORT or [IPv6]:PORT")->capture_default_str();
    CLI::Option *certificate =
        app.add_option("--certificate", options.certificate, "PEM file, with its chain: speak TLS");
    app.add_option("--key", options.key, "PEM file with the certificate's private key")->needs(certificate);
    certificate->needs("--key");
    app.add_flag("--behind-proxy", options.behindProxy,
        "Take the client's address from X-Forwarded-For of a proxy on this machine");
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

int serve(const Options &options)
{
    const QString configFile =
        checkedText(options.configFile, QStringLiteral("the path of the configuration file"), 4000);
    const HostPort listen = checkedHostPort(options.listen);
    const QHostAddress address = checkedAddress(listen.host);
    // Whoever reaches the proxy comes from this machine then.
    const bool loopbackOnly = address.isLoopback() && !options.behindProxy;
    requirePassword(configFile,
        options.behindProxy ? QStringLiteral("with --behind-proxy")
                            : QStringLiteral("on %1").arg(address.toString()),
        loopbackOnly);

    const TerminationSignals terminationSignals;
    Server server;
    if (!options.certificate.empty())
        server.useCertificate(
            QString::fromStdString(options.certificate), QString::fromStdString(options.key));
    if (!server.listen(address, quint16(listen.port)))
        throw CommandError(QStringLiteral("cannot listen on %1: %2")
                               .arg(hostAndPort(listen.host, listen.port), server.errorString()));
    Console console(configFile, {loopbackOnly, options.behindProxy});
    QObject::connect(&server, &Server::requested, &console, &Console::handle);
    console.start();
    std::printf("quillon-console: %s://%s/\n", options.certificate.empty() ? "http" : "https",
        hostAndPort(listen.host, listen.port).toUtf8().constData());
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int run(int argc, char *argv[])
{
    Options options;
    CLI::App app("Serves a page that shows what the Quillon gateway hears and does.", "quillon-console");
    addOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); // prints the help or the version
        throw CommandError(QString::fromUtf8(error.what()) + QStringLiteral("; see quillon-console --help"));
    }
    return serve(options);
}

} // namespace

int main(int argc, char *argv[])
{
    limitMemory();
    Q_INIT_RESOURCE(words); // the linker would leave it out of a static library
    std::signal(SIGPIPE, SIG_IGN);
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8")); // names of files, in any locale
    qInstallMessageHandler(handleMessage);
    int ownArgument = 1; // the others are not Qt's to look at
    const QCoreApplication application(ownArgument, argv);
    try {
        return run(argc, argv);
    } catch (const CommandError &error) {
        printError(error.message());
    } catch (const std::exception &error) {
        printError(QString::fromUtf8(error.what()));
    }
    return failureCode;
}
