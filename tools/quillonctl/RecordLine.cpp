#include "tools/quillonctl/RecordLine.h"

#include "tools/quillonctl/Printer.h"

#include <QDateTime>

namespace {

constexpr int nameWidth = 16; // cells of a terminal
constexpr int longestText = 4096; // characters

struct Range
{
    uint first;
    uint last;
};

/// What a terminal draws two cells wide: https://www.unicode.org/reports/tr11/
constexpr Range wideCharacters[] = {{0x1100, 0x115f}, {0x2e80, 0xa4cf}, {0xac00, 0xd7a3}, {0xf900, 0xfaff},
    {0xfe30, 0xfe6f}, {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x1f300, 0x1faff}, {0x20000, 0x3fffd}};

int cellsOf(uint character)
{
    const QChar::Category category = QChar::category(character);
    if (category == QChar::Mark_NonSpacing || category == QChar::Mark_Enclosing)
        return 0;
    for (const Range &range : wideCharacters) {
        if (character >= range.first && character <= range.last)
            return 2;
    }
    return 1;
}

/// Exactly so many cells: cut or filled up.
QString fitted(const QString &text, int width)
{
    const QVector<uint> characters = printable(text).toUcs4();
    int cells = 0;
    for (const uint character : characters)
        cells += cellsOf(character);
    const int room = cells > width ? width - 1 : width; // the last one for the sign that it is cut
    QString result;
    int used = 0;
    for (const uint character : characters) {
        if (used + cellsOf(character) > room)
            break;
        used += cellsOf(character);
        result += QString::fromUcs4(&character, 1);
    }
    if (cells > width) {
        result += QChar(0x2026);
        ++used;
    }
    return result + QString(width - used, QLatin1Char(' '));
}

QString text(const QJsonObject &record, const char *member)
{
    return record.value(QLatin1String(member)).toString();
}

QString localTime(const QJsonObject &record)
{
    const QDateTime time = QDateTime::fromString(text(record, "time"), Qt::ISODateWithMs);
    // A record that carries no time is of now.
    return (time.isValid() ? time.toLocalTime() : QDateTime::currentDateTime())
        .toString(QStringLiteral("HH:mm:ss"));
}

QString aboutRadio(const QJsonObject &record)
{
    QStringList parts;
    if (!text(record, "esn").isEmpty())
        parts.append(QStringLiteral("ESN ") + text(record, "esn"));
    if (text(record, "model") != QLatin1String("unknown"))
        parts << text(record, "model") << text(record, "band");
    parts.append(text(record, "port"));
    return parts.join(QStringLiteral(", "));
}

} // namespace

RecordLine::RecordLine(bool hasColours)
    : m_hasColours(hasColours), m_directionWidth(qMax(m_words.longest(QStringLiteral("directions")),
                                    direction(QStringLiteral("gateway")).size())),
      m_kindWidth(m_words.longest(QStringLiteral("kinds")))
{
}

QString RecordLine::direction(const QString &record) const
{
    const bool isTraffic = record == QLatin1String("frame") || record == QLatin1String("command");
    return m_words.word(isTraffic ? QStringLiteral("directions") : QStringLiteral("records"), record);
}

QString RecordLine::format(const QJsonObject &record) const
{
    const QString type = text(record, "record");
    if (type == QLatin1String("frame") || type == QLatin1String("command"))
        return columns(record, text(record, "name"),
            m_words.word(QStringLiteral("kinds"), text(record, "kind")), traffic(record),
            type == QLatin1String("frame") ? "32" : "36");
    if (type == QLatin1String("radio"))
        return columns(record, text(record, "name"),
            m_words.word(QStringLiteral("states"), text(record, "state")), aboutRadio(record), "33");
    if (type == QLatin1String("gateway"))
        return columns(
            record, text(record, "gateway"), QStringLiteral("Quillon ") + text(record, "version"), {}, "33");
    const QString count = QString::number(record.value(QStringLiteral("count")).toDouble(), 'f', 0);
    const QString told =
        m_words.word(QStringLiteral("records"), type).replace(QStringLiteral("{count}"), count);
    const QString line = localTime(record) + QStringLiteral("  ") + printable(told);
    return m_hasColours ? QStringLiteral("\033[31m%1\033[0m").arg(line) : line;
}

QString RecordLine::traffic(const QJsonObject &record) const
{
    const QJsonObject fields = record.value(QStringLiteral("fields")).toObject();
    QStringList parts;
    for (const QString &field : m_words.fieldsOf(text(record, "kind"))) {
        const QString value = fields.value(field).toString();
        if (!value.isEmpty())
            parts.append(m_words.word(QStringLiteral("fields"), field) + QLatin1Char(' ') + value);
    }
    const QString known = parts.join(QStringLiteral(", "));
    return known.isEmpty() ? text(record, "text") : known + QStringLiteral("  ") + text(record, "text");
}

QString RecordLine::columns(const QJsonObject &record, const QString &name, const QString &kind,
    const QString &detail, const char *colour) const
{
    const QString gap = QStringLiteral("  ");
    const QString kindCell = detail.isEmpty() ? printable(kind) : fitted(kind, m_kindWidth);
    QString what = fitted(direction(text(record, "record")), m_directionWidth) + gap + kindCell;
    if (m_hasColours)
        what = QStringLiteral("\033[%1m%2\033[0m").arg(QLatin1String(colour), what);
    const QString line = localTime(record) + gap + fitted(name, nameWidth) + gap + what;
    return detail.isEmpty() ? line : line + gap + printable(detail, longestText);
}

QByteArray harmlessJson(const QByteArray &line)
{
    QString result;
    const QString characters = QString::fromUtf8(line);
    for (const QChar character : characters) {
        if (isHarmless(character))
            result += character;
        else
            result += QStringLiteral("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
    }
    return result.toUtf8();
}
