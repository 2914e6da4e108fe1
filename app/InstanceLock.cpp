#include "app/InstanceLock.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

/// One lock for one file, by whatever path it is named.
QString lockPath(const QString &databasePath)
{
    constexpr int longestChain = 40; // of links, as in path_resolution(7)
    QFileInfo file(databasePath);
    for (int links = 0; links < longestChain && file.isSymLink() && !file.exists(); ++links)
        file.setFile(file.symLinkTarget()); // where the file will be made
    if (file.exists())
        return file.canonicalFilePath() + QStringLiteral(".lock");
    const QFileInfo folder(file.absolutePath());
    const QString path = folder.exists() ? folder.canonicalFilePath() : folder.filePath();
    return path + QLatin1Char('/') + file.fileName() + QStringLiteral(".lock");
}

/// No link is followed, and nothing that a stranger put into a shared folder is waited for. A child such as
/// the reboot program must not keep the lock.
int openLockFile(const QByteArray &path)
{
    constexpr int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const int descriptor = ::open(path.constData(), O_RDWR | O_CREAT | flags, 0644);
    // Another user's file, or one on a read-only file system, can be locked all the same.
    return descriptor >= 0 ? descriptor : ::open(path.constData(), O_RDONLY | flags);
}

/// Whoever looks whether a daemon runs holds the lock for an instant, so one look is not enough.
bool lock(int descriptor)
{
    constexpr int tries = 5;
    constexpr useconds_t pause = 20000; // µs
    for (int i = 0; i < tries; ++i) {
        if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0)
            return true;
        if (errno != EWOULDBLOCK)
            return false;
        ::usleep(pause);
    }
    errno = EWOULDBLOCK;
    return false;
}

} // namespace

InstanceLock::InstanceLock(const QString &databasePath)
{
    const QString path = lockPath(databasePath);
    m_descriptor = openLockFile(QFile::encodeName(path));
    if (m_descriptor >= 0 && lock(m_descriptor))
        return;
    const int reason = errno;
    m_heldElsewhere = m_descriptor >= 0 && reason == EWOULDBLOCK;
    if (!m_heldElsewhere) {
        qWarning() << "A second daemon on this file would not be noticed, there is no lock : " << path
                   << std::strerror(reason);
    }
}

InstanceLock::~InstanceLock()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}
