#include "tools/quillonctl/DaemonLock.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

bool daemonRuns(const QString &databasePath)
{
    const QString path = QFileInfo(databasePath).canonicalFilePath() + QStringLiteral(".lock");
    const int lock =
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (lock < 0)
        return false;
    const bool isHeld = ::flock(lock, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(lock);
    return isHeld;
}
