#include "support/TestCertificates.h"

#include <QFile>
#include <QProcess>
#include <QSslConfiguration>

TestCertificates::TestCertificates()
{
    const QString script =
        QStringLiteral("cd '%1'\n"
                       "new='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2'\n"
                       "openssl req -x509 $new -keyout ca.key -out ca.pem -subj '/CN=Test authority'\n"
                       "openssl req -x509 $new -keyout key.pem -out cert.pem -subj '/CN=127.0.0.1'"
                       " -addext 'subjectAltName=IP:127.0.0.1' -CA ca.pem -CAkey ca.key -addext "
                       "'basicConstraints=CA:FALSE'\n");
    QProcess openssl;
    openssl.start(QStringLiteral("sh"), {QStringLiteral("-ec"), script.arg(m_folder.path())});
    if (!openssl.waitForFinished() || openssl.exitCode() != 0)
        qFatal("openssl: %s", openssl.readAllStandardError().constData());

    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates(QSslCertificate::fromPath(authorityPath()));
    QSslConfiguration::setDefaultConfiguration(tls);
}

QSslCertificate TestCertificates::certificate() const
{
    return QSslCertificate::fromPath(m_folder.filePath(QStringLiteral("cert.pem"))).first();
}

QSslKey TestCertificates::key() const
{
    QFile file(m_folder.filePath(QStringLiteral("key.pem")));
    file.open(QIODevice::ReadOnly);
    return QSslKey(file.readAll(), QSsl::Ec);
}
