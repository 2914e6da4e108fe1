#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QTemporaryDir>

/// A certificate authority made for this run, and a certificate of it for 127.0.0.1.
/// The authority is added to this process's default TLS configuration.
class TestCertificates
{
public:
    TestCertificates();

    QSslCertificate certificate() const;
    QSslKey key() const;
    /// File with the authority's certificate, PEM.
    QString authorityPath() const { return m_folder.filePath(QStringLiteral("ca.pem")); }

private:
    QTemporaryDir m_folder;
};
