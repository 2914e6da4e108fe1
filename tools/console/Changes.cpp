#include "tools/console/Changes.h"

#include "tools/quillonctl/Actions.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"

namespace {

const int lockPatienceMs = 5000;
const QString sayPath = QStringLiteral("/api/say");
const QString restartPath = QStringLiteral("/api/restart");
const QString streamPath = QStringLiteral("/api/stream");
const QString radioPath = QStringLiteral("/api/radio/");

QJsonValue member(const QJsonObject &body, const QString &name, QJsonValue::Type type)
{
    QJsonValue value = body.value(name);
    if (!value.isUndefined() && value.type() != type)
        throw CommandError(QStringLiteral("the member \"%1\" is of the wrong type").arg(name));
    return value;
}

Reply say(const ConfigFile &file, const QJsonObject &body)
{
    const QJsonValue text = member(body, QStringLiteral("text"), QJsonValue::String);
    return Reply::json({{QStringLiteral("displayed"), queueText(file, text.toString().toStdString())}});
}

Reply changeOne(const ConfigFile &file, int id, const QJsonObject &body)
{
    const QJsonValue name = member(body, QStringLiteral("name"), QJsonValue::String);
    const QJsonValue enabled = member(body, QStringLiteral("enabled"), QJsonValue::Bool);
    if (name.isUndefined() && enabled.isUndefined())
        throw CommandError(
            QStringLiteral("nothing to change: give a name (text) or enabled (true or false)"));
    if (!name.isUndefined())
        renameRadio(file, id, name.toString().toStdString());
    if (!enabled.isUndefined())
        enableRadio(file, id, enabled.toBool());
    return Reply::json({{QStringLiteral("changed"), id}});
}

} // namespace

bool isChange(const QString &path)
{
    return path == sayPath || path == restartPath || path == streamPath || path.startsWith(radioPath);
}

Reply carryOut(const QString &path, const QJsonObject &body, const QString &configFile)
{
    const auto open = [&] { return ConfigFile(configFile, ConfigFile::ReadWrite, lockPatienceMs); };
    if (path == sayPath)
        return say(open(), body);
    if (path == restartPath)
        return Reply::json({{QStringLiteral("queued"), queueRestart(open())}});
    if (path == streamPath)
        return Reply::json({{QStringLiteral("added"), addStream(open())}});
    if (path.startsWith(radioPath))
        return changeOne(open(), checkedId(path.mid(radioPath.size()).toStdString()), body);
    return Reply::notFound();
}
