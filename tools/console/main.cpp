#include "app/TerminationSignals.h"
#include "tools/console/Console.h"
#include "tools/console/Server.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Listing.h"
#include "tools/quillonctl/Program.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>
#include <malloc.h>

namespace {

struct Options
{
    std::string configFile;
    std::string listen = "127.0.0.1:8470";
    std::string certificate;
    std::string key;
    bool behindProxy = false;
};

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
    return parseArguments(app, argc, argv) ? serve(options) : 0;
}

} // namespace

int main(int argc, char *argv[])
{
    limitMemory();
    Q_INIT_RESOURCE(words); // the linker would leave it out of a static library
    std::signal(SIGPIPE, SIG_IGN);
    return runProgram("quillon-console", argc, argv, run);
}
