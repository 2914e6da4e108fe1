#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QVector>

// What the commands write on standard output, in UTF-8. Control characters, which a radio's name or answer
// may hold, never reach the terminal.

/// A column of a table: the member of each row that it shows, and how the cell is coloured on a terminal.
struct Column
{
    QString key;
    QString title;
    /// The parameter of the SGR escape sequence for this row, such as "32"; empty for none.
    QString (*colour)(const QJsonObject &row) = nullptr;
};

/// Whether a terminal only draws it: no control character, nothing that changes the direction of writing.
bool isHarmless(QChar character);
/// What is not harmless replaced, and what is longer than `maximum` characters cut.
QString printable(const QString &text, int maximum = 4096);

void printLine(const QString &text);
void printJson(const QJsonArray &array);
void printJson(const QJsonObject &object);
/// Aligned columns under their titles; booleans as yes and no, what is empty as a dash. Without rows just
/// `nothing`.
void printTable(const QVector<Column> &columns, const QJsonArray &rows, const QString &nothing);

/// Whether standard output is a terminal that wants colours.
bool hasColours();
