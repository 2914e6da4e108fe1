#include "app/LogHandler.h"

#include <cstdio>
#include <cstdlib>
#include <syslog.h>

namespace {

struct LogLevel
{
    QtMsgType type;
    const char *stderrFormat;
    int syslogPriority;
    const char *syslogFormat;
};

// syslog is never opened, so the name in the format is what identifies the daemon. A fatal message goes out
// one step above critical, on purpose.
const LogLevel levels[] = {
    {QtDebugMsg, "Debug: %s\n", LOG_DEBUG, "ostraserialtonetwork (debug): %s"},
    {QtInfoMsg, "Info: %s\n", LOG_INFO, "ostraserialtonetwork (info): %s"},
    {QtWarningMsg, "Warning: %s\n", LOG_WARNING, "ostraserialtonetwork (warning): %s"},
    {QtCriticalMsg, "Critical: %s\n", LOG_CRIT, "ostraserialtonetwork (critical): %s"},
    {QtFatalMsg, "Fatal: %s\n", LOG_ALERT, "ostraserialtonetwork (alert): %s"},
};

} // namespace

void handleLogMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    const QByteArray text = message.toLocal8Bit();
    for (const LogLevel &level : levels) {
        if (level.type != type)
            continue;
        std::fprintf(stderr, level.stderrFormat, text.constData());
        syslog(level.syslogPriority, level.syslogFormat, text.constData());
        break;
    }
    if (type == QtFatalMsg)
        std::abort();
}
