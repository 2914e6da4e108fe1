#pragma once

#include "forwarders/LongWait.h"
#include "forwarders/OutboxFiles.h"
#include "forwarders/PubSubDataForwarder.h"
#include "protocol/Notifications.h"
#include "support/HttpServer.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

#include <memory>

inline constexpr char publishPath[] = "/v1/projects/proj/topics/topic:publish";

inline QJsonArray messagesOf(const HttpServer::Request &request)
{
    return QJsonDocument::fromJson(request.body).object().value("messages"_s).toArray();
}

inline QJsonObject jsonOf(const QJsonValue &message)
{
    const QByteArray data = message["data"_s].toString().toLatin1();
    return QJsonDocument::fromJson(QByteArray::fromBase64(data)).object();
}

inline QString textOf(const QJsonValue &message)
{
    return jsonOf(message).value("rawData"_s).toString();
}

/// What a Pub/Sub server answers to a request that it takes.
inline HttpServer::Answer accepted(const HttpServer::Request &request)
{
    QJsonArray ids;
    for (int i = 0; i < messagesOf(request).size(); ++i)
        ids.append(QString::number(i));
    return {200, QJsonDocument(QJsonObject{{"messageIds"_s, ids}}).toJson()};
}

inline HttpServer::Answer refusal(int code, const QByteArray &message = "no")
{
    return {code, R"({"error":{"code":)" + QByteArray::number(code) + R"(,"message":")" + message + "\"}}"};
}

inline const PublisherTimes shortTimes{20, 300, 1500};

/// An output with a token and publish server of its own, and a radio that speaks to it.
struct PubSubOutput
{
    PubSubOutput(
        const TestDatabase &database, const TestCertificates &certificates, const TestCredential &key)
        : file(database), server(&certificates)
    {
        server.respond = [this](const HttpServer::Request &request) { return answer(request); };
        id = file.addForwarder("PUBSUB"_s, server.url(), 0, key.secret(server.url("/token"_s)), "topic"_s);
        radio.config()->esn = "28940001"_s;
    }
    ~PubSubOutput()
    {
        forwarder.reset();
        const QString name = QFileInfo(path()).fileName();
        for (const QString &each : {name, name + "-wal"_s, name + "-shm"_s})
            QFile::remove(file.file(each));
    }

    QString path() const { return outboxPath(file.path(), id); }
    void start()
    {
        forwarder = std::make_unique<PubSubDataForwarder>(nullptr, id, shortTimes);
        QObject::connect(&radio, &RecordingLink::dataReceived, forwarder.get(), &DataForwarder::forward);
    }
    bool startWithToken()
    {
        start();
        const bool asked = QTest::qWaitFor([&] { return tokenRequests() > 0; });
        QTest::qWait(100); // the answer is on its way
        return asked;
    }
    void say(const QByteArray &frame)
    {
        const auto response = QSharedPointer<UnsollicitedCommandResponse>::create(nullptr, frame);
        response->stampNow();
        emit radio.dataReceived(response);
    }
    void say(int from, int to)
    {
        for (int i = from; i <= to; ++i)
            say(QByteArray::number(i));
    }

    HttpServer::Answer answer(const HttpServer::Request &request)
    {
        if (request.path == "/token")
            return token;
        HttpServer::Answer given = nextAnswers.isEmpty() ? accepted(request) : nextAnswers.takeFirst();
        if (given.code == 200 && given.body.contains("\"0\"")) { // the id of the first
            for (const QJsonValue message : messagesOf(request)) {
                const QJsonValue attributes = message["attributes"_s];
                m_texts.insert(attributes["sequence"_s].toString().toLongLong(), textOf(message));
                uuids.insert(attributes["outbox"_s].toString());
                ++copies;
            }
        }
        given.delay = delay / 2; // it counts twice
        return given;
    }
    /// Of the messages that were accepted, by their sequence; requests side by side arrive in any order.
    QStringList texts() const { return m_texts.values(); }
    int tokenRequests() const { return server.requestsTo("/token").size(); }
    QList<HttpServer::Request> publishes() const { return server.requestsTo(publishPath); }
    int status() const { return file.forwarderStatus(id); }
    /// What a statement yields in the outbox; "-" while there is no such table.
    QString stored(const QString &statement) const
    {
        try {
            SqliteConnection connection(path(), SQLITE_OPEN_READONLY, 1000);
            SqliteStatement query(connection, statement.toUtf8().constData());
            QStringList rows;
            while (query.next())
                rows.append(QString::fromUtf8(query.bytes(0)));
            return rows.join(u' ');
        } catch (const SqliteError &) {
            return "-"_s;
        }
    }
    QString waiting() const { return stored("SELECT waiting FROM state"_s); }

    const TestDatabase &file;
    HttpServer server;
    HttpServer::Answer token{200, R"({"access_token":"t0k","expires_in":3599})"};
    QList<HttpServer::Answer> nextAnswers; ///< to publish requests; then they are accepted
    int delay = 0; ///< of answers to publish requests, in ms
    int copies = 0; ///< how many messages were accepted
    QSet<QString> uuids; ///< of the outboxes that they came from
    int id = -1;
    RecordingLink radio{"Équipe"_s, "ttyUSB0"_s};
    std::unique_ptr<PubSubDataForwarder> forwarder;

private:
    QMap<qint64, QString> m_texts;
};

inline QStringList numbers(int from, int to)
{
    QStringList result;
    for (int i = from; i <= to; ++i)
        result.append(QString::number(i));
    return result;
}
