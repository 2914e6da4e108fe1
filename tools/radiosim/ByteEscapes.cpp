#include "tools/radiosim/ByteEscapes.h"

#include <array>

namespace {

struct Escape
{
    char letter;
    char byte;
};

constexpr std::array escapes{
    Escape{'n', '\n'}, Escape{'r', '\r'}, Escape{'t', '\t'}, Escape{'0', '\0'}, Escape{'\\', '\\'}};

/// The byte that the escape at `position` (of its backslash) stands for; moves `position` to its last letter.
std::optional<char> byteAt(const QByteArray &text, int &position)
{
    const QByteArray sequence = text.mid(position + 1, 3);
    if (sequence.startsWith('x')) {
        bool isNumber = false;
        const int value = sequence.mid(1).toInt(&isNumber, 16);
        if (!isNumber || sequence.size() != 3 || !isxdigit(uchar(sequence.at(1))))
            return std::nullopt;
        position += 3;
        return char(value);
    }
    for (const Escape &escape : escapes) {
        if (sequence.startsWith(escape.letter)) {
            ++position;
            return escape.byte;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<QByteArray> unescapeBytes(const QByteArray &text, QString *error)
{
    QByteArray bytes;
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) != '\\') {
            bytes += text.at(i);
            continue;
        }
        const int start = i;
        const std::optional<char> byte = byteAt(text, i);
        if (!byte) {
            *error = QStringLiteral("unknown escape '%1'").arg(QString::fromUtf8(text.mid(start, 4)));
            return std::nullopt;
        }
        bytes += *byte;
    }
    return bytes;
}

QByteArray escapeBytes(const QByteArray &bytes)
{
    QByteArray text;
    for (const char byte : bytes) {
        if (byte == '\\')
            text += "\\\\";
        else if (uchar(byte) < 0x20 || byte == 0x7f)
            text += "\\x" + QByteArray(1, byte).toHex();
        else
            text += byte;
    }
    return text;
}
