#pragma once

#include <QByteArray>
#include <QString>

/// Runs OpenSSL's command in a folder; what it prints on standard output.
QByteArray runOpenssl(const QString &folder, const QString &arguments);

/// A service account of project "proj" with an RSA key made for this run.
class TestCredential
{
public:
    TestCredential();

    /// PEM, PKCS#8.
    QByteArray privateKey() const { return m_privateKey; }
    /// The document with this token endpoint, as the secret column holds it.
    QByteArray secret(const QString &tokenUri) const;

private:
    const QByteArray m_privateKey;
};
