#include "tools/quillonctl/Commands.h"

#include "config/ConfigDatabase.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/CredentialFile.h"
#include "tools/quillonctl/Printer.h"
#include "tools/quillonctl/StreamTarget.h"

#include <QSqlError>
#include <QSqlQuery>

namespace {

/// The file of a new installation: the daemon's default rows, less what nobody has set up yet, and a stream.
class InitialFile : public ConfigDatabase
{
public:
    explicit InitialFile(const QString &path) : ConfigDatabase(path, KeepStatuses) { }

    /// Makes the file unless it is filled already; throws CommandError when it can do neither.
    void make(const QString &path)
    {
        const bool isOpen = createDatabase();
        if (isOpen && !setupError().isValid())
            return;
        const QString reason =
            isOpen ? setupError().databaseText() : QStringLiteral("is its folder there and yours to use?");
        throw CommandError(QStringLiteral("%1 cannot be made: %2").arg(path, reason));
    }
    bool isNew() const { return m_isNew; }
    /// What was done to the new file, a line each.
    QStringList changes() const { return m_changes; }

protected:
    bool completeNewFile(QSqlQuery &query) override
    {
        m_isNew = true;
        return disableUnusableOutputs(query) && addStream(query);
    }

private:
    /// An output without a credential would keep every frame in memory until it gets one.
    bool disableUnusableOutputs(QSqlQuery &query)
    {
        QStringList unusable;
        bool succeeded =
            query.exec(QStringLiteral("SELECT ids, secret FROM data_forwarder WHERE type = 'GCP'"));
        while (query.next()) {
            if (!CredentialFile::fromSecret(query.value(1).toString()).problem().isEmpty())
                unusable.append(query.value(0).toString());
        }
        for (const QString &id : unusable) {
            succeeded = succeeded
                && query.exec(QStringLiteral("UPDATE data_forwarder SET enabled = 0 WHERE ids = %1").arg(id));
            m_changes.append(QStringLiteral("Output %1 (GCP) has no credential and is switched off: "
                                            "quillonctl forwarder set %1 --credentials FILE --topic NAME, "
                                            "then quillonctl forwarder enable %1")
                                 .arg(id));
        }
        return succeeded;
    }

    /// So that the box itself can show what it hears.
    bool addStream(QSqlQuery &query)
    {
        query.prepare(
            QStringLiteral("INSERT INTO data_forwarder (type, secret, context, comment, target, port, "
                           "enabled, status) VALUES ('STREAM', '', '', '', ?, '', 1, 0)"));
        query.addBindValue(StreamTarget::defaultPath);
        m_changes.append(
            QStringLiteral("Members of the daemon's group may join the stream %1: quillonctl watch")
                .arg(StreamTarget::defaultPath));
        return query.exec();
    }

    bool m_isNew = false;
    QStringList m_changes;
};

void init(const CommandContext &context)
{
    const QString path = context.path();
    InitialFile file(path);
    file.make(path);
    if (!file.isNew()) {
        printLine(QStringLiteral("%1 is filled already; nothing was changed.").arg(path));
        return;
    }
    printLine(QStringLiteral("%1 was made with its default settings.").arg(path));
    for (const QString &change : file.changes())
        printLine(change);
}

} // namespace

void addInitCommand(CLI::App &app, CommandContext &context)
{
    CLI::App *command = app.add_subcommand("init", "Make the configuration file of a new installation");
    command->footer("A file that holds anything stays as it is. Run it as the user that the daemon runs as.");
    command->callback([&context] { init(context); });
}
