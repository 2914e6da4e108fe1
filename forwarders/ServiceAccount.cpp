#include "forwarders/ServiceAccount.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <memory>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

namespace {

// The published values of the cloud provider.
const QString scopes =
    QStringLiteral("https://www.googleapis.com/auth/cloud-platform https://www.googleapis.com/auth/pubsub");

template <auto Free>
struct Deleter
{
    template <typename T>
    void operator()(T *object) const
    {
        Free(object);
    }
};
using Bio = std::unique_ptr<BIO, Deleter<BIO_free>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;

/// A credential is a key in clear: without this, OpenSSL would ask for a passphrase on the terminal.
int refusePassphrase(char *, int, int, void *)
{
    return -1;
}

void wipe(QByteArray &bytes)
{
    OPENSSL_cleanse(bytes.data(), size_t(bytes.size()));
}

void wipe(QString &text)
{
    OPENSSL_cleanse(text.data(), size_t(text.size()) * sizeof(QChar));
}

Key parsedKey(const QByteArray &pem)
{
    const Bio bio(BIO_new_mem_buf(pem.constData(), pem.size()));
    Key key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassphrase, nullptr) : nullptr);
    if (!key)
        ERR_clear_error(); // the queue is shared with the TLS of this thread
    return key;
}

/// RSASSA-PKCS1-v1_5 with SHA-256; empty on failure.
QByteArray signature(const QByteArray &input, EVP_PKEY *key)
{
    const DigestContext context(EVP_MD_CTX_new());
    size_t size = 0;
    if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1
        || EVP_DigestSignUpdate(context.get(), input.constData(), size_t(input.size())) != 1
        || EVP_DigestSignFinal(context.get(), nullptr, &size) != 1)
        return {};
    QByteArray result(int(size), Qt::Uninitialized);
    if (EVP_DigestSignFinal(context.get(), reinterpret_cast<unsigned char *>(result.data()), &size) != 1)
        return {};
    result.resize(int(size));
    return result;
}

QByteArray compactJson(const QVariantMap &map)
{
    return QJsonDocument(QJsonObject::fromVariantMap(map)).toJson(QJsonDocument::Compact);
}

} // namespace

ServiceAccount::ServiceAccount(const QString &secret)
{
    QByteArray base64 = secret.toUtf8().simplified().replace(' ', QByteArray()); // it may come in lines
    auto decoded = QByteArray::fromBase64Encoding(base64, QByteArray::AbortOnBase64DecodingErrors);
    wipe(base64);
    if (!decoded)
        return;
    QByteArray text = std::move(decoded.decoded);
    const QJsonObject document =
        QJsonDocument::fromJson(QByteArray::fromRawData(text.constData(), int(qstrlen(text.constData()))))
            .object();
    m_projectId = document.value(QLatin1String("project_id")).toString();
    m_privateKeyId = document.value(QLatin1String("private_key_id")).toString();
    QString privateKey = document.value(QLatin1String("private_key")).toString();
    m_privateKey = privateKey.toUtf8();
    wipe(privateKey);
    m_clientEmail = document.value(QLatin1String("client_email")).toString();
    m_tokenUri = document.value(QLatin1String("token_uri")).toString();
    wipe(text);
}

ServiceAccount::~ServiceAccount()
{
    wipe(m_privateKey);
}

QByteArray ServiceAccount::signedAssertion(qint64 issuedAt, int lifetime) const
{
    const Key key = parsedKey(m_privateKey);
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA)
        return {};
    const QByteArray input = toBase64Url(header()) + '.' + toBase64Url(claimSet(issuedAt, lifetime));
    const QByteArray signedInput = signature(input, key.get());
    return signedInput.isEmpty() ? QByteArray() : input + '.' + toBase64Url(signedInput);
}

QByteArray ServiceAccount::toBase64Url(const QByteArray &bytes)
{
    return bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

QByteArray ServiceAccount::header() const
{
    return compactJson({
        {QStringLiteral("alg"), QStringLiteral("RS256")},
        {QStringLiteral("kid"), m_privateKeyId},
        {QStringLiteral("typ"), QStringLiteral("JWT")},
    });
}

QByteArray ServiceAccount::claimSet(qint64 issuedAt, int lifetime) const
{
    return compactJson({
        {QStringLiteral("aud"), m_tokenUri},
        {QStringLiteral("exp"), issuedAt + lifetime},
        {QStringLiteral("iat"), issuedAt},
        {QStringLiteral("iss"), m_clientEmail},
        {QStringLiteral("scope"), scopes},
    });
}
