#pragma once

#include "tools/quillonctl/Words.h"

#include <QJsonObject>
#include <QString>

/// Makes a line of a record of the stream, as a person reads it: local time, the radio's name, the direction,
/// the kind, the fields that matter, the text. The columns keep their widths from line to line, and nothing
/// of what came over the air can steer a terminal.
class RecordLine
{
public:
    explicit RecordLine(bool hasColours);

    QString format(const QJsonObject &record) const;
    const Words &words() const { return m_words; }

private:
    QString direction(const QString &record) const;
    QString traffic(const QJsonObject &record) const;
    QString columns(const QJsonObject &record, const QString &name, const QString &kind,
        const QString &detail, const char *colour) const;

    const bool m_hasColours;
    const Words m_words;
    const int m_directionWidth;
    const int m_kindWidth;
};

/// The line of a record as JSON for a terminal: what could steer it is written as an escape sequence of JSON.
QByteArray harmlessJson(const QByteArray &line);
