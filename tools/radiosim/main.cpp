#include "app/TerminationSignals.h"
#include "tools/radiosim/ControlInput.h"
#include "tools/radiosim/RadioFleet.h"
#include "tools/radiosim/RadiosimOptions.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>
#include <memory>

static int badInput(const QString &error)
{
    std::fprintf(stderr, "quillon-radiosim: %s\n", qUtf8Printable(error));
    return 2;
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("quillon-radiosim"));
    const TerminationSignals terminationSignals;
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes away must not leave links behind

    RadiosimOptions options;
    if (!options.parse(QCoreApplication::arguments()))
        return badInput(options.errorString());
    if (options.wantsHelp() || options.wantsVersion()) {
        const QString text = options.wantsHelp() ? options.helpText()
                                                 : QStringLiteral("quillon-radiosim " QUILLON_VERSION "\n");
        std::fputs(qUtf8Printable(text), stdout);
        return 0;
    }

    RadioFleet fleet;
    if (!fleet.start(options))
        return badInput(fleet.errorString());
    std::unique_ptr<ControlInput> control;
    if (options.control())
        control = std::make_unique<ControlInput>(fleet);
    return QCoreApplication::exec();
}
