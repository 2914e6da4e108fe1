#include "support/TestCredential.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

QByteArray runOpenssl(const QString &folder, const QString &arguments)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start(QStringLiteral("sh"), {QStringLiteral("-ec"), QStringLiteral("openssl ") + arguments});
    process.waitForFinished();
    return process.readAllStandardOutput();
}

TestCredential::TestCredential()
    : m_privateKey(runOpenssl(
        QStringLiteral("."), QStringLiteral("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048")))
{
}

QByteArray TestCredential::secret(const QString &tokenUri) const
{
    const QJsonObject document{
        {QStringLiteral("project_id"), QStringLiteral("proj")},
        {QStringLiteral("private_key_id"), QStringLiteral("key-1")},
        {QStringLiteral("private_key"), QString::fromLatin1(m_privateKey)},
        {QStringLiteral("client_email"), QStringLiteral("robot@example.org")},
        {QStringLiteral("token_uri"), tokenUri},
    };
    return QJsonDocument(document).toJson().toBase64();
}
