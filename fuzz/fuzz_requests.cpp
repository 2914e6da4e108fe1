// What comes in over HTTP, in any pieces, up to the change of the file that a body asks for.

#include "config/ConfigDatabase.h"
#include "fuzz/FuzzSupport.h"
#include "tools/console/Access.h"
#include "tools/console/Changes.h"
#include "tools/quillonctl/CommandError.h"

#include <QJsonDocument>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

const QByteArray start("POST /api/");

RequestReader::State feed(RequestReader &reader, const QByteArray &bytes, int piece)
{
    RequestReader::State state = RequestReader::Reading;
    for (int i = 0; i < bytes.size(); i += piece)
        state = reader.feed(bytes.mid(i, piece));
    return state;
}

void checkChange(const Request &request, const QString &configFile)
{
    const QJsonDocument body = QJsonDocument::fromJson(request.body);
    try {
        const Reply reply = carryOut(request.path, body.object(), configFile);
        require(
            reply.status == 200 || reply.status == 404, "a change is made, or there is none of this name");
    } catch (const CommandError &error) {
        require(!error.message().isEmpty(), "a refusal says why");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const FuzzEnvironment environment;
    static const QString configFile = environment.file(QStringLiteral("q.sqlite"));
    static const bool hasStore = ConfigDatabase::getInstance(configFile);
    require(hasStore, "a store");
    FuzzedDataProvider input(data, size);
    const int piece = input.ConsumeIntegralInRange<int>(1, 4096);
    const bool known = input.ConsumeBool();
    const QByteArray bytes =
        (known ? start : QByteArray()) + QByteArray::fromStdString(input.ConsumeRemainingBytesAsString());

    RequestReader whole;
    RequestReader cut;
    const RequestReader::State state = feed(whole, bytes, int(bytes.size()) + 1);
    // What is none may be refused early, or once its time is over.
    const bool isRequest = state == RequestReader::Complete;
    require((feed(cut, bytes, piece) == RequestReader::Complete) == isRequest, "however it is cut");
    if (!isRequest)
        return 0;
    const Request request = whole.request();
    require(request.body.size() <= 4096, "a body has at most 4 KiB");
    require(cut.request().body == request.body && cut.request().path == request.path, "the same request");
    require(request.cookie("quillon_session").size() <= 8192, "a cookie is part of the header");
    request.query.queryItemValue(QStringLiteral("after"));
    Access access(configFile, {});
    access.refusal(request);
    require(!access.mayChange(request), "nobody may change anything without a password");
    checkChange(request, configFile);
    return 0;
}
