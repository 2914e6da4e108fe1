#pragma once

#include <QString>

/// "text"_s is a QString of this UTF-8 text.
inline QString operator""_s(const char *text, std::size_t length)
{
    return QString::fromUtf8(text, int(length));
}
