#include "protocol/IdentificationCommands.h"

#include "protocol/Frame.h"

#include <QDebug>

bool IdentificationCommand::validResponse(const QByteArray &data)
{
    const QSharedPointer<IcomCommandResponse> answer = parsedAnswer(Frame::toText(data), data);
    if (!answer) {
        qWarning() << warningText() << data;
        return false;
    }
    emit commandResponse(answer);
    return true;
}

RetrieveEsnCommand::RetrieveEsnCommand(QObject *parent) : IdentificationCommand(parent, RetrieveEsn) { }

QString RetrieveEsnCommand::commandText()
{
    return QStringLiteral("*GET,INFO,ESN");
}

QSharedPointer<IcomCommandResponse> RetrieveEsnCommand::parsedAnswer(
    const QString &text, const QByteArray &data) const
{
    const QRegExp pattern(QStringLiteral(R"(^\*NTF\,INFO\,ESN\,(\d+)$)"));
    if (pattern.indexIn(text) == -1)
        return {};
    return QSharedPointer<RetrieveEsnCommandResponse>::create(nullptr, data, pattern.cap(1));
}

RetrieveCloningCommentCommand::RetrieveCloningCommentCommand(QObject *parent, int commentIndex)
    : IdentificationCommand(parent, RetrieveCloningComment), m_commentIndex(commentIndex)
{
}

QString RetrieveCloningCommentCommand::commandText()
{
    return QStringLiteral("*GET,INFO,COMMENT,%1").arg(m_commentIndex);
}

QSharedPointer<IcomCommandResponse> RetrieveCloningCommentCommand::parsedAnswer(
    const QString &text, const QByteArray &data) const
{
    const QRegExp pattern(QStringLiteral(R"(^\*NTF\,INFO\,COMMENT\,(.*)$)"));
    if (pattern.indexIn(text) == -1)
        return {};
    return QSharedPointer<RetrieveCloningCommentCommandResponse>::create(nullptr, data, pattern.cap(1));
}

RetrieveDspFirmwareCommand::RetrieveDspFirmwareCommand(QObject *parent)
    : IdentificationCommand(parent, RetrieveDspFirmware)
{
}

QString RetrieveDspFirmwareCommand::commandText()
{
    return QStringLiteral("*GET,INFO,DREV");
}

QSharedPointer<IcomCommandResponse> RetrieveDspFirmwareCommand::parsedAnswer(
    const QString &text, const QByteArray &data) const
{
    using Answer = RetrieveDspFirmwareCommandResponse;
    const QRegExp pattern(QStringLiteral(R"(^\*NTF\,INFO\,DREV\,([0-9\.]+)\,(.*)$)"));
    if (pattern.indexIn(text) != -1)
        return QSharedPointer<Answer>::create(nullptr, data, pattern.cap(1), pattern.cap(2));
    const QString refused = QStringLiteral("NG");
    if (QRegExp(QStringLiteral(R"(^\*NTF\,INFO\,DREV\,NG$)")).indexIn(text) != -1)
        return QSharedPointer<Answer>::create(nullptr, data, refused, refused);
    return {};
}

RetrieveFirmwareVersionCommand::RetrieveFirmwareVersionCommand(QObject *parent)
    : IdentificationCommand(parent, RetrieveFirmwareVersion)
{
}

QString RetrieveFirmwareVersionCommand::commandText()
{
    return QStringLiteral("*GET,INFO,REV");
}

QSharedPointer<IcomCommandResponse> RetrieveFirmwareVersionCommand::parsedAnswer(
    const QString &text, const QByteArray &data) const
{
    // Neither escaped like the others nor anchored at its end, on purpose.
    const QRegExp pattern(
        QStringLiteral(R"(^*NTF,INFO,REV,([0-9]\.[0-9a-zA-Z]*),(\$[a-zA-Z0-9]*),?([a-zA-Z0-9\s]*)?)"));
    if (pattern.indexIn(text) == -1)
        return {};
    return QSharedPointer<RetrieveFirmwareVersionCommandResponse>::create(
        nullptr, data, pattern.cap(1), pattern.cap(2), pattern.cap(3));
}

RetrieveFrontFirmwareCommand::RetrieveFrontFirmwareCommand(QObject *parent)
    : IdentificationCommand(parent, RetrieveFrontFirmware)
{
}

QString RetrieveFrontFirmwareCommand::commandText()
{
    return QStringLiteral("*GET,INFO,FREV");
}

QSharedPointer<IcomCommandResponse> RetrieveFrontFirmwareCommand::parsedAnswer(
    const QString &text, const QByteArray &data) const
{
    using Answer = RetrieveFrontFirmwareCommandResponse;
    const QRegExp pattern(QStringLiteral(R"(^\*NTF\,INFO\,FREV\,(.*),(.*)$)"));
    if (pattern.indexIn(text) != -1)
        return QSharedPointer<Answer>::create(nullptr, data, pattern.cap(1), pattern.cap(2));
    const QString refused = QStringLiteral("NG");
    if (QRegExp(QStringLiteral(R"(^\*NTF\,INFO\,FREV\,NG$)")).indexIn(text) != -1)
        return QSharedPointer<Answer>::create(nullptr, data, refused, refused);
    return {};
}
