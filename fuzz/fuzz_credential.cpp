// The secret column of a cloud output, as a base64 text or as the document itself.

#include "forwarders/ServiceAccount.h"
#include "fuzz/FuzzSupport.h"

namespace {

void sign(const QString &secret)
{
    const ServiceAccount account(secret);
    const QByteArray assertion = account.signedAssertion(1700000000, 1800);
    require(assertion.isEmpty() || assertion.count('.') == 2, "an assertion has three parts");
    require(!assertion.contains('=') && !assertion.contains('+') && !assertion.contains('/'),
        "an assertion needs no escaping");
    account.projectId();
    account.tokenUri();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));
    sign(QString::fromUtf8(bytes));
    sign(QString::fromLatin1(bytes.toBase64()));
    return 0;
}
