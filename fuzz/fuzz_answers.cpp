// One frame, offered to every command that waits for an answer and to the parser of notifications.

#include "config/ConfigDatabase.h"
#include "fuzz/FuzzSupport.h"
#include "protocol/ActionCommands.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace {

using Commands = QList<QSharedPointer<IcomCommand>>;

Commands allCommands()
{
    return {QSharedPointer<RetrieveEsnCommand>::create(nullptr),
        QSharedPointer<RetrieveCloningCommentCommand>::create(nullptr, 1),
        QSharedPointer<RetrieveDspFirmwareCommand>::create(nullptr),
        QSharedPointer<RetrieveFirmwareVersionCommand>::create(nullptr),
        QSharedPointer<RetrieveFrontFirmwareCommand>::create(nullptr),
        QSharedPointer<DisplayTextCommand>::create(nullptr, QString(), 0),
        QSharedPointer<AnalogKillCommand>::create(nullptr, QString()),
        QSharedPointer<DpmrKillCommand>::create(nullptr, QString())};
}

void checkAnswers(const Commands &commands, const QByteArray &frame)
{
    for (const auto &command : commands) {
        int answers = 0;
        QObject context;
        QObject::connect(command.data(), &IcomCommand::commandResponse, &context,
            [&](const QSharedPointer<IcomCommandResponse> &response) {
                ++answers;
                require(response->data() == frame, "an answer holds the frame as it came");
                require(
                    response->responseType() == command->commandType(), "an answer is of its query's kind");
                response->process();
            });
        const bool recognised = command->validResponse(frame);
        require(answers == (recognised && command->expectsResponse() ? 1 : 0), "one answer for each match");
    }
}

void checkNotification(const QByteArray &frame)
{
    QObject adapter;
    const auto response = parseNotification(&adapter, frame);
    if (!response) {
        require(frame.contains("RXMSG"), "only malformed text messages are dropped");
        return;
    }
    require(response->data() == frame, "a notification holds the frame as it came");
    response->process();
    response->setParent(nullptr); // as an adapter that ends lets go of it
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const FuzzEnvironment environment;
    static const bool hasStore = ConfigDatabase::getInstance(environment.file(QStringLiteral("q.sqlite")));
    static const Commands commands = allCommands();
    require(hasStore, "a store");
    const QByteArray frame(reinterpret_cast<const char *>(data), int(size));
    checkAnswers(commands, frame);
    checkNotification(frame);
    return 0;
}
