#include "tools/quillonctl/Printer.h"

#include <QJsonDocument>

#include <cstdio>
#include <unistd.h>

namespace {

QString cellText(const QJsonValue &value)
{
    if (value.isBool())
        return value.toBool() ? QStringLiteral("yes") : QStringLiteral("no");
    const QString text = printable(value.toVariant().toString());
    return text.isEmpty() ? QStringLiteral("-") : text;
}

void writeOut(const QByteArray &text)
{
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
}

void printCells(const QStringList &cells, const QVector<int> &widths, const QStringList &colours)
{
    QString line;
    for (int i = 0; i < cells.size(); ++i) {
        const bool last = i + 1 == cells.size();
        const QString cell = last ? cells.at(i) : cells.at(i).leftJustified(widths.at(i) + 2);
        line += colours.at(i).isEmpty() ? cell : QStringLiteral("\033[%1m%2\033[0m").arg(colours.at(i), cell);
    }
    writeOut(line.toUtf8() + '\n');
}

} // namespace

bool isHarmless(QChar character)
{
    switch (character.category()) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return false;
    default:
        return true;
    }
}

QString printable(const QString &text, int maximum)
{
    QString result = text.size() > maximum ? text.left(maximum) + QStringLiteral("…") : text;
    for (QChar &character : result) {
        if (!isHarmless(character))
            character = QChar::ReplacementCharacter;
    }
    return result;
}

void printLine(const QString &text)
{
    writeOut(printable(text).toUtf8() + '\n');
}

void printJson(const QJsonArray &array)
{
    writeOut(QJsonDocument(array).toJson());
}

void printJson(const QJsonObject &object)
{
    writeOut(QJsonDocument(object).toJson());
}

void printTable(const QVector<Column> &columns, const QJsonArray &rows, const QString &nothing)
{
    if (rows.isEmpty()) {
        printLine(nothing);
        return;
    }
    QVector<QStringList> lines(1);
    for (const Column &column : columns)
        lines.first().append(column.title);
    for (const QJsonValue &row : rows) {
        QStringList cells;
        for (const Column &column : columns)
            cells.append(cellText(row.toObject().value(column.key)));
        lines.append(cells);
    }

    QVector<int> widths(columns.size(), 0);
    for (const QStringList &cells : qAsConst(lines)) {
        for (int i = 0; i < cells.size(); ++i)
            widths[i] = qMax(widths.at(i), cells.at(i).size());
    }
    for (int i = 0; i < lines.size(); ++i) {
        QStringList colours;
        for (const Column &column : columns) {
            const bool coloured = i > 0 && column.colour && hasColours();
            colours.append(coloured ? column.colour(rows.at(i - 1).toObject()) : QString());
        }
        printCells(lines.at(i), widths, colours);
    }
}

bool hasColours()
{
    static const bool result =
        isatty(STDOUT_FILENO) && qEnvironmentVariableIsEmpty("NO_COLOR") && qgetenv("TERM") != "dumb";
    return result;
}
