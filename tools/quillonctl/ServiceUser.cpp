#include "tools/quillonctl/ServiceUser.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Printer.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

const quint64 leastRoom = 65536; // bytes; a small change of a database needs some of it for its journal

} // namespace

ServiceUser ServiceUser::find()
{
    if (const passwd *entry = getpwnam("quillon"))
        return ServiceUser(entry->pw_name, entry->pw_uid, entry->pw_gid);
    if (const passwd *entry = getpwuid(geteuid()))
        return ServiceUser(entry->pw_name, entry->pw_uid, entry->pw_gid);
    return ServiceUser("(unnamed)", geteuid(), getegid());
}

ServiceUser ServiceUser::named(const QString &name)
{
    if (const passwd *entry = getpwnam(name.toUtf8().constData()))
        return ServiceUser(entry->pw_name, entry->pw_uid, entry->pw_gid);
    throw CommandError(QStringLiteral("there is no user \"%1\"").arg(printable(name, 60)));
}

ServiceUser::ServiceUser(const char *name, uid_t uid, gid_t group)
    : m_name(QString::fromUtf8(name)), m_uid(uid)
{
    int count = 256;
    m_groups.resize(count);
    if (getgrouplist(name, group, m_groups.data(), &count) < 0)
        count = m_groups.size();
    m_groups.resize(count);
}

bool ServiceUser::may(unsigned wanted, const QString &path) const
{
    QString current = QFileInfo(path).canonicalFilePath();
    if ((wanted & Write) && access(QFile::encodeName(current).constData(), W_OK) != 0 && errno == EROFS)
        return false;
    while (!current.isEmpty()) {
        struct stat status = {};
        if (stat(QFile::encodeName(current).constData(), &status) != 0 || !modeAllows(wanted, status))
            return false;
        if (current == QLatin1String("/"))
            return true;
        current = QFileInfo(current).path();
        wanted = Execute; // every folder above has to let the user through
    }
    return false;
}

bool ServiceUser::modeAllows(unsigned wanted, const struct stat &status) const
{
    if (m_uid == 0)
        return true;
    unsigned granted = status.st_mode;
    if (status.st_uid == m_uid)
        granted >>= 6;
    else if (m_groups.contains(status.st_gid))
        granted >>= 3;
    return (granted & wanted) == wanted;
}

bool ServiceUser::isDiskFull(const QString &path) const
{
    struct statvfs status = {};
    const QFileInfo info(path);
    if (info.exists() && !info.isFile())
        return false; // a pipe, a socket or a device
    const QByteArray place = QFile::encodeName(info.exists() ? path : info.absolutePath());
    if (statvfs(place.constData(), &status) != 0 || status.f_blocks == 0)
        return false;
    const quint64 free = m_uid == 0 ? status.f_bfree : status.f_bavail;
    return free * status.f_frsize < leastRoom;
}

QString ServiceUser::writeProblem(const QString &path) const
{
    const QFileInfo info(path);
    if (info.isDir())
        return QStringLiteral("%1 is a folder").arg(path);
    if (info.exists() && !may(Write, path))
        return QStringLiteral("%1 cannot be written by the user %2").arg(path, m_name);
    if (!info.exists() && !QFileInfo(info.path()).isDir())
        return QStringLiteral("the folder %1 does not exist").arg(info.path());
    if (!info.exists() && !may(Write | Execute, info.path()))
        return QStringLiteral("the folder %1 cannot be written by the user %2").arg(info.path(), m_name);
    return isDiskFull(path) ? QStringLiteral("the disk of %1 is full").arg(path) : QString();
}

QString groupOf(const QString &path)
{
    const QString group = QFileInfo(path).group();
    return group.isEmpty() ? QStringLiteral("?") : group;
}
