#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

/// Replaces \n, \r, \t, \0, \\ and \xNN (two hexadecimal digits) by the byte that they stand for; nothing and
/// an error at any other backslash.
std::optional<QByteArray> unescapeBytes(const QByteArray &text, QString *error);

/// The bytes on one line of print: control bytes and backslashes as escapes, the others as they are.
QByteArray escapeBytes(const QByteArray &bytes);
