#include "forwarders/OutboxFiles.h"

#include "config/ConfigDatabase.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

namespace {

const QString suffix = QStringLiteral(".sqlite");

QString withoutSuffix(const QString &path)
{
    return path.endsWith(suffix) ? path.chopped(suffix.size()) : path;
}

} // namespace

QString outboxPath(const QString &configurationFile, int id)
{
    return QStringLiteral("%1.outbox-%2%3")
        .arg(withoutSuffix(configurationFile), QString::number(id), suffix);
}

QMap<int, QString> outboxFiles(const QString &configurationFile)
{
    const QFileInfo configuration(configurationFile);
    const QRegularExpression name(QRegularExpression::anchoredPattern(
        QRegularExpression::escape(withoutSuffix(configuration.fileName()))
        + QStringLiteral("\\.outbox-([1-9][0-9]{0,9})\\.sqlite")));
    QMap<int, QString> result;
    const QStringList files = configuration.absoluteDir().entryList(QDir::Files);
    for (const QString &file : files) {
        const int id = name.match(file).captured(1).toInt();
        if (id > 0)
            result.insert(id, configuration.absoluteDir().filePath(file));
    }
    return result;
}

QString damagedOutboxPath(const QString &path)
{
    const QString time = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss"));
    const QString stem = QStringLiteral("%1.damaged-%2").arg(withoutSuffix(path), time);
    QString result = stem + suffix;
    for (int number = 2; QFileInfo::exists(result); ++number)
        result = QStringLiteral("%1-%2%3").arg(stem, QString::number(number), suffix);
    return result;
}

void logStrayOutboxes()
{
    ConfigDatabase *database = ConfigDatabase::getInstance();
    const QMap<int, QString> files = outboxFiles(database->path());
    if (files.isEmpty())
        return;
    const QList<DataForwarderConfig> rows = database->getDataForwarders();
    if (database->lastReadFailed())
        return;
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        const bool hasRow = std::any_of(rows.cbegin(), rows.cend(), [&](const DataForwarderConfig &row) {
            return row.ids == file.key() && row.type == QLatin1String("PUBSUB");
        });
        if (!hasRow)
            qInfo() << "The outbox" << file.value() << "belongs to no output and is left alone";
    }
}
