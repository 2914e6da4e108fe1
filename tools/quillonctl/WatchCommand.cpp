#include "tools/quillonctl/Commands.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Printer.h"
#include "tools/quillonctl/RecordLine.h"
#include "tools/quillonctl/StreamReader.h"

#include <QJsonDocument>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <unistd.h>
#include <vector>

namespace {

struct WatchOptions
{
    std::optional<std::string> socket;
    std::optional<std::string> radio;
    std::vector<std::string> kinds;
    long count = 0;
    bool json = false;
};

/// Which records are wanted.
struct Filter
{
    QString radio; ///< null for every one
    QStringList kinds; ///< empty for every one

    bool takes(const QJsonObject &record) const
    {
        const auto text = [&](const char *member) { return record.value(QLatin1String(member)).toString(); };
        if (text("record") == QLatin1String("lost"))
            return true; // who filters has to know all the same
        return (radio.isNull() || text("name") == radio) && (kinds.isEmpty() || kinds.contains(text("kind")));
    }
};

Filter checkedFilter(const WatchOptions &options, const QStringList &known)
{
    Filter filter;
    if (options.radio)
        filter.radio = checkedText(*options.radio, QStringLiteral("a radio's name"), 64);
    for (const std::string &kind : options.kinds) {
        filter.kinds.append(QString::fromStdString(kind));
        if (!known.contains(filter.kinds.last()))
            throw CommandError(QStringLiteral("a kind is one of %1, not \"%2\"")
                                   .arg(known.join(QStringLiteral(", ")), filter.kinds.last()));
    }
    return filter;
}

/// False when nobody reads standard output any more.
bool write(const QByteArray &line)
{
    if (std::fwrite(line.constData(), 1, size_t(line.size()), stdout) == size_t(line.size())
        && std::fputc('\n', stdout) != EOF && std::fflush(stdout) == 0)
        return true;
    if (errno == EPIPE)
        return false;
    throw CommandError(QStringLiteral("standard output: %1").arg(qt_error_string(errno)));
}

void watch(const CommandContext &context, const WatchOptions &options)
{
    const RecordLine lines(hasColours());
    const Filter filter = checkedFilter(options, lines.words().kinds());
    const StreamTarget target = options.socket ? StreamTarget::fromArgument(*options.socket)
                                               : StreamTarget::configured(context.open(ConfigFile::ReadOnly));
    std::signal(SIGPIPE, SIG_IGN);
    for (const int signal : {SIGINT, SIGTERM})
        std::signal(signal, [](int) { ::_exit(0); }); // every line has been flushed

    StreamReader reader(target);
    QByteArray line;
    for (long shown = 0; (options.count == 0 || shown < options.count) && reader.readLine(&line);) {
        const QJsonObject record = QJsonDocument::fromJson(line).object();
        if (!record.contains(QStringLiteral("record")))
            throw CommandError(QStringLiteral("%1 is no stream of records").arg(target.text()));
        if (!filter.takes(record))
            continue;
        if (options.json && ::isatty(STDOUT_FILENO))
            line = harmlessJson(line);
        if (!write(options.json ? line : lines.format(record).toUtf8()))
            return;
        ++shown;
    }
}

} // namespace

void addWatchCommand(CLI::App &app, CommandContext &context)
{
    const auto options = std::make_shared<WatchOptions>();
    CLI::App *command =
        app.add_subcommand("watch", "Show what is heard and sent, as it happens, until Ctrl-C");
    command->add_flag("--json", options->json, "Pass on the records, a line of JSON each");
    command->add_option("--radio", options->radio, "Only what this radio hears and is sent");
    command->add_option("--kind", options->kinds, "Only these kinds, such as gps,dpmrCall")->delimiter(',');
    command->add_option("--count", options->count, "End after so many lines")
        ->check(CLI::Range(1L, 2000000000L));
    command->add_option("--socket", options->socket, "PATH or HOST:PORT instead of the configured stream");
    command->callback([&context, options] { watch(context, *options); });
}
