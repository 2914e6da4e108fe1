#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

/// How a person reads what a record says, as words.json has it.
class Words
{
public:
    Words();

    /// The word for an entry of a section, such as "kinds" and "gps"; the entry itself when there is none.
    QString word(const QString &section, const QString &entry) const;
    /// The kinds of frames and commands.
    QStringList kinds() const;
    /// The fields of a kind that matter to a person, in their order.
    QStringList fieldsOf(const QString &kind) const;
    /// The length of the longest word of a section, in characters.
    int longest(const QString &section) const;

private:
    QJsonObject section(const QString &name) const { return m_words.value(name).toObject(); }

    QJsonObject m_words;
};
