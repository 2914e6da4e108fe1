#include "tools/quillonctl/Actions.h"

#include "config/ConfigKeys.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/Listing.h"
#include "tools/quillonctl/ServiceUser.h"
#include "tools/quillonctl/StreamTarget.h"

namespace {

const QString actionTable = QStringLiteral("pending_actions");
const QString commandColumn = QStringLiteral("command");
const QString displayPrefix = QStringLiteral("DISP,");
const QString outputTable = QStringLiteral("data_forwarder");
const QString idColumn = QStringLiteral("ids");
const QString enabledColumn = QStringLiteral("enabled");

/// What is left of a text on its way to the displays: the daemon takes the command in capitals and removes
/// its prefix, wherever it stands, and double quotes.
QString displayedText(const QString &text)
{
    return text.toUpper().remove(displayPrefix).remove(QLatin1Char('"'));
}

/// As root an action would still find room; the daemon could not take it back, and would carry it out again
/// and again.
void requireRoom(const ConfigFile &file)
{
    if (ServiceUser::find().isDiskFull(file.path()))
        throw CommandError(QStringLiteral("the disk of %1 is full").arg(file.path()));
}

} // namespace

QString queueText(const ConfigFile &file, const std::string &argument)
{
    const QString text = checkedText(argument, QStringLiteral("a text"), 200);
    QString displayed = displayedText(text);
    if (displayed.trimmed().isEmpty())
        throw CommandError(QStringLiteral("nothing of this text would reach a display"));
    requireRoom(file);
    file.insert(actionTable, {{commandColumn, displayPrefix + text}});
    return displayed;
}

bool queueOnce(const ConfigFile &file, const QString &command)
{
    requireRoom(file);
    return file.insertUnlessPresent(actionTable, {{commandColumn, command}}, commandColumn) > 0;
}

bool queueRestart(const ConfigFile &file)
{
    return queueOnce(file, QStringLiteral("RESTART_APP"));
}

void changeRadio(const ConfigFile &file, int id, const QVariantMap &columns)
{
    if (file.update(QStringLiteral("radio_adapters"), columns, idColumn, id) == 0)
        throw CommandError(QStringLiteral("there is no radio with the id %1").arg(id));
}

void renameRadio(const ConfigFile &file, int id, const std::string &name)
{
    changeRadio(file, id, {{QStringLiteral("name"), checkedRadioName(name)}});
}

void enableRadio(const ConfigFile &file, int id, bool enabled)
{
    changeRadio(file, id, {{enabledColumn, enabled}});
}

int insertOutput(const ConfigFile &file, const QString &type, const QVariantMap &given, bool enabled)
{
    QVariantMap columns{
        {QStringLiteral("type"), type}, {enabledColumn, enabled}, {QStringLiteral("status"), 0}};
    for (const char *column : {"target", "port", "secret", "context", "comment"})
        columns[QLatin1String(column)] = QStringLiteral("");
    for (auto column = given.begin(); column != given.end(); ++column)
        columns[column.key()] = column.value();
    if (migrationRemovesOutputs(systemValue(file, BDD_RELEASE_KEY)))
        throw CommandError(
            QStringLiteral("the file is of an older release, and the daemon would remove the output "
                           "when it starts: start it once, then add outputs"));
    return file.insert(outputTable, columns);
}

int addStream(const ConfigFile &file)
{
    const QString type = QStringLiteral("STREAM");
    for (const QSqlRecord &output : file.rows(outputTable)) {
        if (output.value(QStringLiteral("type")).toString().toUpper() != type)
            continue;
        const int id = output.value(idColumn).toInt();
        file.update(outputTable, {{enabledColumn, true}}, idColumn, id);
        return id;
    }
    return insertOutput(file, type, StreamTarget{StreamTarget::defaultPath, {}}.columns(), true);
}
