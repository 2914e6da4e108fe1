#include "tools/quillonctl/StreamTarget.h"

#include "forwarders/StreamSocket.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/ConfigFile.h"
#include "tools/quillonctl/Listing.h"

#include <QDir>
#include <QHostAddress>

#include <sys/stat.h>

const QString StreamTarget::defaultPath = QStringLiteral("/run/quillon/stream");

StreamTarget StreamTarget::fromArgument(const std::string &argument)
{
    const QString text = checkedText(argument, QStringLiteral("a target"), 4000);
    if (text.contains(QLatin1Char(':')) && !text.contains(QLatin1Char('/')))
        return {{}, checkedHostPort(argument)};
    return {QDir::cleanPath(QDir::current().absoluteFilePath(text)), {}};
}

StreamTarget StreamTarget::fromRow(const QSqlRecord &output)
{
    const QString target = output.value(QStringLiteral("target")).toString();
    if (target.startsWith(QLatin1Char('/')))
        return {target, {}};
    return {{}, {target, output.value(QStringLiteral("port")).toInt()}};
}

StreamTarget StreamTarget::configured(const ConfigFile &file)
{
    for (const QSqlRecord &output : file.rows(QStringLiteral("data_forwarder"))) {
        if (output.value(QStringLiteral("enabled")).toBool()
            && output.value(QStringLiteral("type")).toString().toUpper() == QLatin1String("STREAM"))
            return fromRow(output);
    }
    throw CommandError(QStringLiteral("no output of the kind STREAM is configured: quillonctl forwarder add "
                                      "stream, then quillonctl restart"));
}

QString StreamTarget::text() const
{
    return path.isEmpty() ? hostAndPort(server.host, server.port) : path;
}

QVariantMap StreamTarget::columns() const
{
    const bool isTcp = path.isEmpty();
    return {{QStringLiteral("target"), isTcp ? server.host : path},
        {QStringLiteral("port"), isTcp ? QString::number(server.port) : QStringLiteral("")}};
}

bool StreamTarget::isPublic() const
{
    return path.isEmpty() && !QHostAddress(server.host).isLoopback();
}

QString StreamTarget::problem() const
{
    if (path.isEmpty()) {
        const bool isAddress =
            !QHostAddress(server.host).isNull() && server.port >= 1 && server.port <= 65535;
        return isAddress
            ? QString()
            : QStringLiteral("%1 is neither an absolute path nor an IP address and a port").arg(text());
    }
    const QByteArray name = QFile::encodeName(path);
    if (name.size() > StreamSocket::longestPath())
        return QStringLiteral("%1 is too long for a socket: %2 bytes, at most %3 are allowed")
            .arg(path)
            .arg(name.size())
            .arg(StreamSocket::longestPath());
    struct stat status = {};
    if (::lstat(name.constData(), &status) == 0 && !S_ISSOCK(status.st_mode))
        return QStringLiteral("%1 exists and is no socket").arg(path);
    return {};
}
