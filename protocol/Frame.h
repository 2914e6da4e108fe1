#pragma once

#include <QByteArray>
#include <QString>

/// The frame in which every line travels, to and from a radio: STX, the line, ETX; no CR or LF.
namespace Frame {

constexpr char STX = 0x02;
constexpr char ETX = 0x03;

inline QByteArray wrapped(const QByteArray &line)
{
    return STX + line + ETX;
}

/// The text on which patterns are matched: the UTF-8 line up to its first NUL byte.
inline QString toText(const QByteArray &line)
{
    return QString::fromUtf8(line.constData(), int(qstrnlen(line.constData(), uint(line.size()))));
}

} // namespace Frame
