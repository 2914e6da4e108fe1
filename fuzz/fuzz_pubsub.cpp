// What a PUBSUB output meets: an answer of the server to a request of some messages, or, when the input
// begins as an SQLite file does, an outbox file.

#include "forwarders/CloudRequests.h"
#include "forwarders/Outbox.h"
#include "forwarders/PublishRequest.h"
#include "forwarders/ServerClock.h"
#include "fuzz/FuzzSupport.h"

#include <QDir>

#include <fuzzer/FuzzedDataProvider.h>
#include <limits>

namespace {

constexpr qint64 lastSequence = std::numeric_limits<qint64>::max();

void judge(FuzzedDataProvider &input)
{
    const int codes[] = {0, 200, 400, 401, 403, 404, 408, 413, 429, 503};
    const int code = input.PickValueInArray(codes);
    const QString phrase = QString::fromStdString(input.ConsumeRandomLengthString(20));
    const QByteArray header = QByteArray::fromStdString(input.ConsumeRandomLengthString(40));
    const QByteArray body = QByteArray::fromStdString(input.ConsumeRemainingBytesAsString());
    const PublishAnswer answer = publishAnswer(code, phrase, body, 2);
    require(answer.verdict != PublishAnswer::Accepted || code == 200, "only a 200 accepts");
    require(
        answer.reason.size() <= 500 && !answer.reason.contains(QLatin1Char('\n')), "a reason is one line");
    accessToken(body);
    ServerClock clock;
    clock.note(header);
    const qint64 rest = clock.retryAfter(header);
    require(rest >= 0 && rest <= 3600LL * 1000, "a server makes nobody rest for more than an hour");
    require(clock.secondsSinceEpoch() >= 0, "time is after 1970");
}

void use(const QString &path)
{
    Outbox outbox(path);
    outbox.setLimit(64LL * 1024);
    const qint64 sequence = outbox.nextSequence();
    require(sequence > outbox.lastStored().value_or(0), "a new number is greater than every old one");
    require(outbox.apply({{{sequence, "{}"}}, {}, {}, 0}).has_value(), "a new message can be stored");
    const auto messages = outbox.read({0, lastSequence}, 500, 1000000);
    require(messages.has_value(), "messages can be read");
    publishBody(*messages, outbox.uuid());
    RefusedMessage refused{{sequence, "{}"}, QStringLiteral("no")};
    outbox.apply({{}, {{0, sequence - 1}}, {refused}, 3});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const FuzzEnvironment environment;
    if (size > 16 && std::equal(data, data + 6, "SQLite")) {
        QDir folder(QFileInfo(environment.file(QStringLiteral("outbox/x"))).path());
        folder.removeRecursively();
        folder.mkpath(QStringLiteral("."));
        QFile file(folder.filePath(QStringLiteral("q.outbox-1.sqlite")));
        file.open(QIODevice::WriteOnly);
        file.write(reinterpret_cast<const char *>(data), qint64(size));
        file.close();
        for (int start = 0; start < 2; ++start) // a second start finds what the first one left
            use(file.fileName());
        return 0;
    }
    FuzzedDataProvider input(data, size);
    judge(input);
    return 0;
}
