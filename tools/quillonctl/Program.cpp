#include "tools/quillonctl/Program.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Printer.h"

#include <QCoreApplication>
#include <QTextCodec>

#include <cstdio>

namespace {

const int failureCode = 2;

void printError(const QString &message)
{
    const QString line =
        QStringLiteral("%1: %2\n").arg(QCoreApplication::applicationName(), printable(message, 600));
    std::fputs(line.toUtf8().constData(), stderr);
}

/// Lines of the shared code that are meant for the daemon's log stay out of the way.
void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        printError(message);
}

} // namespace

int runProgram(const char *name, int argc, char *argv[], int (*run)(int argc, char *argv[]))
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8")); // names of files, in any locale
    qInstallMessageHandler(handleMessage);
    // A resolver that is out of reach would hold up a check for 10 s and more a name.
    if (!qEnvironmentVariableIsSet("RES_OPTIONS"))
        qputenv("RES_OPTIONS", "timeout:1 attempts:2");
    int ownArgument = 1; // the others are not Qt's to look at
    const QCoreApplication application(ownArgument, argv);
    QCoreApplication::setApplicationName(QString::fromLatin1(name));
    try {
        for (int i = 1; i < argc; ++i) {
            if (!isUtf8(argv[i]))
                throw CommandError(QStringLiteral("argument %1 is not UTF-8 text").arg(i));
        }
        return run(argc, argv);
    } catch (const CommandError &error) {
        printError(error.message());
    } catch (const std::exception &error) {
        printError(QString::fromUtf8(error.what()));
    }
    return failureCode;
}
