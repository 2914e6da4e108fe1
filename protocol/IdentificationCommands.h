#pragma once

#include "protocol/IcomCommand.h"
#include "protocol/IcomCommandResponse.h"

#include <QRegExp>

// The queries that identify a radio, each with its answer.

class RetrieveCloningCommentCommandResponse : public IcomCommandResponse
{
    Q_OBJECT

public:
    RetrieveCloningCommentCommandResponse(QObject *parent, const QByteArray &data, const QString &comment)
        : IcomCommandResponse(parent, data), m_comment(comment)
    {
    }

    int responseType() const override { return CloningComment; }
    QString comment() const { return m_comment; }

private:
    const QString m_comment;
};

class RetrieveDspFirmwareCommandResponse : public IcomCommandResponse
{
    Q_OBJECT

public:
    RetrieveDspFirmwareCommandResponse(
        QObject *parent, const QByteArray &data, const QString &dspVersion, const QString &dspInfo)
        : IcomCommandResponse(parent, data), m_dspVersion(dspVersion), m_dspInfo(dspInfo)
    {
    }

    int responseType() const override { return DspFirmware; }
    QString dspVersion() const { return m_dspVersion; }
    QString dspInfo() const { return m_dspInfo; }

private:
    const QString m_dspVersion;
    const QString m_dspInfo;
};

class RetrieveEsnCommandResponse : public IcomCommandResponse
{
    Q_OBJECT

public:
    RetrieveEsnCommandResponse(QObject *parent, const QByteArray &data, const QString &esn)
        : IcomCommandResponse(parent, data), m_esn(esn)
    {
    }

    int responseType() const override { return Esn; }
    QString esn() const { return m_esn; }

private:
    const QString m_esn;
};

class RetrieveFirmwareVersionCommandResponse : public IcomCommandResponse
{
    Q_OBJECT

public:
    RetrieveFirmwareVersionCommandResponse(QObject *parent, const QByteArray &data,
        const QString &firmwareVersion, const QString &firmwareCode, const QString &firmwareInfo)
        : IcomCommandResponse(parent, data), m_firmwareVersion(firmwareVersion), m_firmwareCode(firmwareCode),
          m_firmwareInfo(firmwareInfo)
    {
    }

    int responseType() const override { return FirmwareVersion; }
    QString firmwareVersion() const { return m_firmwareVersion; }
    QString firmwareCode() const { return m_firmwareCode; }
    QString firmwareInfo() const { return m_firmwareInfo; }

private:
    const QString m_firmwareVersion;
    const QString m_firmwareCode;
    const QString m_firmwareInfo;
};

class RetrieveFrontFirmwareCommandResponse : public IcomCommandResponse
{
    Q_OBJECT

public:
    RetrieveFrontFirmwareCommandResponse(
        QObject *parent, const QByteArray &data, const QString &frontVersion, const QString &frontInfo)
        : IcomCommandResponse(parent, data), m_frontVersion(frontVersion), m_frontInfo(frontInfo)
    {
    }

    int responseType() const override { return FrontFirmware; }
    QString frontVersion() const { return m_frontVersion; }
    QString frontInfo() const { return m_frontInfo; }

private:
    const QString m_frontVersion;
    const QString m_frontInfo;
};

/// What the five queries share: the answer is recognised with a pattern, and anything else is logged.
class IdentificationCommand : public IcomCommand
{
    Q_OBJECT

public:
    using IcomCommand::IcomCommand;

    bool validResponse(const QByteArray &data) override;

protected:
    /// The answer, or null when the text is none.
    virtual QSharedPointer<IcomCommandResponse> parsedAnswer(
        const QString &text, const QByteArray &data) const = 0;
    /// How the warning about any other frame begins.
    virtual const char *warningText() const = 0;
};

class RetrieveEsnCommand : public IdentificationCommand
{
    Q_OBJECT

public:
    explicit RetrieveEsnCommand(QObject *parent);
    QString commandText() override;

protected:
    QSharedPointer<IcomCommandResponse> parsedAnswer(
        const QString &text, const QByteArray &data) const override;
    const char *warningText() const override { return "NON Valid ESN : "; }
};

class RetrieveCloningCommentCommand : public IdentificationCommand
{
    Q_OBJECT

public:
    RetrieveCloningCommentCommand(QObject *parent, int commentIndex);
    QString commandText() override;

protected:
    QSharedPointer<IcomCommandResponse> parsedAnswer(
        const QString &text, const QByteArray &data) const override;
    const char *warningText() const override { return "NON Valid Comment : "; }

private:
    const int m_commentIndex;
};

class RetrieveDspFirmwareCommand : public IdentificationCommand
{
    Q_OBJECT

public:
    explicit RetrieveDspFirmwareCommand(QObject *parent);
    QString commandText() override;

protected:
    QSharedPointer<IcomCommandResponse> parsedAnswer(
        const QString &text, const QByteArray &data) const override;
    const char *warningText() const override { return "NON Valid DSP FW response : "; }
};

class RetrieveFirmwareVersionCommand : public IdentificationCommand
{
    Q_OBJECT

public:
    explicit RetrieveFirmwareVersionCommand(QObject *parent);
    QString commandText() override;

protected:
    QSharedPointer<IcomCommandResponse> parsedAnswer(
        const QString &text, const QByteArray &data) const override;
    const char *warningText() const override { return "NON Valid Firmware Version : "; }
};

class RetrieveFrontFirmwareCommand : public IdentificationCommand
{
    Q_OBJECT

public:
    explicit RetrieveFrontFirmwareCommand(QObject *parent);
    QString commandText() override;

protected:
    QSharedPointer<IcomCommandResponse> parsedAnswer(
        const QString &text, const QByteArray &data) const override;
    const char *warningText() const override { return "NON Valid Front firmware version : "; }
};
