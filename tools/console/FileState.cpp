#include "tools/console/FileState.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Listing.h"

#include <QFile>

#include <sys/stat.h>

namespace {

const int lockPatienceMs = 5000;

std::optional<StreamTarget> streamOf(const ConfigFile &file)
{
    try {
        return StreamTarget::configured(file);
    } catch (const CommandError &) {
        return std::nullopt;
    }
}

} // namespace

FileState::Snapshot FileState::read() const
{
    try {
        const ConfigFile file(m_configFile, ConfigFile::ReadOnly, lockPatienceMs);
        return {radioRows(file), outputRows(file), pendingRows(file), streamOf(file), {}};
    } catch (const CommandError &error) {
        return {{}, {}, {}, {}, error.message()};
    }
}

QString FileState::stamp() const
{
    struct stat status = {};
    if (stat(QFile::encodeName(m_configFile).constData(), &status) != 0)
        return {};
    return QStringLiteral("%1 %2 %3.%4")
        .arg(status.st_ino)
        .arg(status.st_size)
        .arg(status.st_mtim.tv_sec)
        .arg(status.st_mtim.tv_nsec);
}

QJsonObject errorFinding(const QString &subject, const QString &problem, const QString &remedy)
{
    return {
        {QStringLiteral("severity"), QStringLiteral("error")},
        {QStringLiteral("subject"), subject},
        {QStringLiteral("problem"), problem},
        {QStringLiteral("remedy"), remedy},
    };
}
