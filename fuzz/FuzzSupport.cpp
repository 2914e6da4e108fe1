#include "fuzz/FuzzSupport.h"

#include <QDir>

#include <cstdio>
#include <cstdlib>

FuzzEnvironment::FuzzEnvironment()
    : m_folder(QStringLiteral("/dev/shm/quillon-fuzz-%1").arg(QCoreApplication::applicationPid()))
{
    // A fuzzer that logs is a slow one; the text is built all the same, so that its making is tried, too.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &) {
        if (type == QtFatalMsg)
            std::abort();
    });
    QDir().mkpath(m_folder);
}

FuzzEnvironment::~FuzzEnvironment()
{
    QDir(m_folder).removeRecursively();
}

void require(bool holds, const char *promise)
{
    if (holds)
        return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}
