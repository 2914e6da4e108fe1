#include "tools/quillonctl/Words.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

const QString language = QStringLiteral("en");

} // namespace

static void initResource()
{
    Q_INIT_RESOURCE(words); // the linker would leave it out of a static library
}

Words::Words()
{
    initResource();
    QFile file(QStringLiteral(":/quillonctl/words.json"));
    if (file.open(QIODevice::ReadOnly))
        m_words = QJsonDocument::fromJson(file.readAll()).object();
}

QString Words::word(const QString &sectionName, const QString &entry) const
{
    return section(sectionName).value(entry).toObject().value(language).toString(entry);
}

QStringList Words::kinds() const
{
    return section(QStringLiteral("kinds")).keys();
}

QStringList Words::fieldsOf(const QString &kind) const
{
    const QJsonObject entry = section(QStringLiteral("kinds")).value(kind).toObject();
    return entry.value(QStringLiteral("fields")).toVariant().toStringList();
}

int Words::longest(const QString &sectionName) const
{
    int result = 0;
    for (const QString &entry : section(sectionName).keys())
        result = qMax(result, word(sectionName, entry).size());
    return result;
}
