#pragma once

#include <QByteArray>
#include <QString>

/// A cloud service account, read from its credential document, that signs for its access tokens.
/// A document that cannot be read yields empty values.
class ServiceAccount
{
public:
    ServiceAccount() = default;
    /// `secret` is the document, UTF-8 JSON, as one base64 text in the standard alphabet.
    explicit ServiceAccount(const QString &secret);
    ~ServiceAccount();
    Q_DISABLE_COPY(ServiceAccount)

    QString projectId() const { return m_projectId; }
    /// Where an assertion is traded for an access token.
    QString tokenUri() const { return m_tokenUri; }

    /// A JWT bearer assertion (RFC 7523) signed with RS256 (RFC 7515), valid from `issuedAt`, in seconds
    /// since 1970 UTC, for `lifetime` seconds; empty when the private key cannot be parsed or is no RSA key.
    QByteArray signedAssertion(qint64 issuedAt, int lifetime) const;

    /// Base64 in the URL-safe alphabet without padding (RFC 7515, section 2).
    static QByteArray toBase64Url(const QByteArray &bytes);

private:
    QByteArray header() const;
    QByteArray claimSet(qint64 issuedAt, int lifetime) const;

    QString m_projectId;
    QString m_privateKeyId;
    QByteArray m_privateKey; // PEM; wiped at the end
    QString m_clientEmail;
    QString m_tokenUri;
};
