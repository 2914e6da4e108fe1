#include "tools/quillonctl/CredentialFile.h"

#include "forwarders/CloudRequests.h"
#include "forwarders/ServiceAccount.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <unistd.h>

namespace {

const int maximumSize = 64 * 1024;

const QString requiredFields[] = {QStringLiteral("project_id"), QStringLiteral("private_key_id"),
    QStringLiteral("private_key"), QStringLiteral("client_email"), QStringLiteral("token_uri")};

} // namespace

CredentialFile CredentialFile::read(const QString &path)
{
    QFile file(path);
    if (access(QFile::encodeName(path).constData(), R_OK) != 0 && errno != ENOENT)
        throw CommandError(QStringLiteral("%1 cannot be read: %2").arg(path, qt_error_string()));
    if (!QFileInfo(path).isFile())
        throw CommandError(QStringLiteral("the credential file %1 does not exist").arg(path));
    if (!file.open(QIODevice::ReadOnly))
        throw CommandError(QStringLiteral("%1 cannot be read: %2").arg(path, file.errorString()));
    const QByteArray document = file.read(maximumSize + 1);
    if (document.size() > maximumSize)
        throw CommandError(QStringLiteral("%1 is too large to be a credential document").arg(path));
    CredentialFile result(document);
    const QString problem = result.problem();
    if (!problem.isEmpty())
        throw CommandError(QStringLiteral("%1 cannot be used: %2").arg(path, problem));
    return result;
}

CredentialFile CredentialFile::fromSecret(const QString &secret)
{
    const auto decoded =
        QByteArray::fromBase64Encoding(secret.toUtf8().simplified().replace(' ', QByteArray()),
            QByteArray::AbortOnBase64DecodingErrors); // it may come in lines, as the daemon takes it
    return CredentialFile(decoded ? *decoded : QByteArray());
}

CredentialFile::CredentialFile(const QByteArray &document)
    : m_document(document), m_fields(QJsonDocument::fromJson(document).object())
{
}

QString CredentialFile::problem() const
{
    if (m_fields.isEmpty())
        return QStringLiteral("it is no JSON document");
    for (const QString &field : requiredFields) {
        if (m_fields.value(field).toString().isEmpty())
            return QStringLiteral("its field %1 is missing").arg(field);
    }
    QString uriProblem = tokenUriProblem(tokenUri().toString());
    if (!uriProblem.isEmpty())
        return uriProblem;
    if (!hostProblem(tokenUri().host()).isEmpty())
        return QStringLiteral("its token_uri names no host");
    // The test is what the daemon will do with it.
    if (ServiceAccount(secret()).signedAssertion(0, 1).isEmpty())
        return QStringLiteral("its private_key is no RSA key that OpenSSL can load");
    return {};
}
