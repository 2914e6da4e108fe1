#pragma once

#include <QString>
#include <QVector>

#include <sys/types.h>

struct stat;

/// The user that the daemon runs as, and what the modes of files let it do. Access lists and the sandbox of a
/// service are not looked at.
class ServiceUser
{
public:
    enum Permission : unsigned {
        Execute = 1,
        Write = 2,
        Read = 4,
    };

    /// The user "quillon" of an installed service when there is one, else the current user.
    static ServiceUser find();
    /// A user by name, which has to exist.
    static ServiceUser named(const QString &name);

    QString name() const { return m_name; }
    /// Whether the user may do all of `wanted` with an existing file or folder, and reach it.
    bool may(unsigned wanted, const QString &path) const;
    /// Whether the disk that a file is on has no room left for the user.
    bool isDiskFull(const QString &path) const;
    /// What keeps the user from writing a file, which need not exist yet; empty when nothing does.
    QString writeProblem(const QString &path) const;

private:
    ServiceUser(const char *name, uid_t uid, gid_t group);

    bool modeAllows(unsigned wanted, const struct stat &status) const;

    QString m_name;
    uid_t m_uid;
    QVector<gid_t> m_groups;
};

/// The group that owns a file, by name.
QString groupOf(const QString &path);
