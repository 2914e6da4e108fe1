#pragma once

#include "tools/quillonctl/InputChecks.h"

#include <QString>
#include <QVariantMap>

class ConfigFile;
class QSqlRecord;

/// Where a stream is: a Unix socket, or a TCP port.
struct StreamTarget
{
    QString path; ///< absolute; empty for TCP
    HostPort server;

    /// Where the package lets the daemon listen.
    static const QString defaultPath;

    /// PATH or HOST:PORT; a path has a slash or no colon. Throws CommandError.
    static StreamTarget fromArgument(const std::string &argument);
    /// What a row of the kind STREAM says.
    static StreamTarget fromRow(const QSqlRecord &output);
    /// The first row of the kind STREAM that is enabled; throws CommandError when there is none.
    static StreamTarget configured(const ConfigFile &file);

    /// As a person writes it.
    QString text() const;
    /// The columns of the row that makes the daemon listen here.
    QVariantMap columns() const;
    /// Whether others than this machine's users can come here.
    bool isPublic() const;
    /// What would keep any daemon from listening here; empty when nothing is known to.
    QString problem() const;
};
