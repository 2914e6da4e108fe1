#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QUrl>

/// A service-account document: what the cloud provider hands out as credentials.json, and what an output
/// keeps as base64 text. No message of this class shows a value of the document.
class CredentialFile
{
public:
    /// Reads a JSON document; throws CommandError when there is none, or one that cannot be used.
    static CredentialFile read(const QString &path);
    /// Takes what an output keeps, good or bad.
    static CredentialFile fromSecret(const QString &secret);

    /// What keeps the document from being used; empty when nothing does.
    QString problem() const;
    /// The document as an output keeps it: standard base64 on one line.
    QString secret() const { return QString::fromLatin1(m_document.toBase64()); }
    /// Where the document's tokens are asked for.
    QUrl tokenUri() const { return QUrl(m_fields.value(QStringLiteral("token_uri")).toString()); }

private:
    explicit CredentialFile(const QByteArray &document);

    QByteArray m_document;
    QJsonObject m_fields;
};
