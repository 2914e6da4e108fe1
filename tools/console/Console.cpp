#include "tools/console/Console.h"

#include "tools/console/Assets.h"
#include "tools/console/Changes.h"
#include "tools/quillonctl/CommandError.h"

#include <QJsonDocument>
#include <QPointer>
#include <QSemaphore>
#include <QTcpSocket>

#include <memory>

namespace {

const int threads = 3;
const int checkPatienceMs = 2000;
const int maximumHashing = 2; ///< each takes 16 MiB meanwhile

const QString statePath = QStringLiteral("/api/state");
const QString eventsPath = QStringLiteral("/api/events");
const QString loginPath = QStringLiteral("/api/login");
const QString logoutPath = QStringLiteral("/api/logout");

Reply noSession()
{
    return Reply::error(401, QStringLiteral("log in first"));
}

/// What an address under /api takes; empty when there is nothing.
QByteArrayList methodsAt(const QString &path)
{
    if (path == statePath || path == eventsPath)
        return {"GET", "HEAD"};
    const bool takesPost = path == loginPath || path == logoutPath || isChange(path);
    return takesPost ? QByteArrayList{"POST"} : QByteArrayList();
}

Reply wrongMethod(const QByteArray &allowed)
{
    Reply reply =
        Reply::error(405, QStringLiteral("this address takes %1 only").arg(QString::fromLatin1(allowed)));
    reply.headers.append({"Allow", allowed});
    return reply;
}

Reply tryLater(int status, int seconds, const QString &message)
{
    Reply reply =
        Reply::json({{QStringLiteral("error"), message}, {QStringLiteral("retryAfter"), seconds}}, status);
    reply.headers.append({"Retry-After", QByteArray::number(seconds)});
    return reply;
}

/// Begins all threads of a pool and keeps them: one that began while descriptors are short would end the
/// program, since its event dispatcher takes some.
void startThreads(QThreadPool *pool)
{
    pool->setMaxThreadCount(threads);
    pool->setExpiryTimeout(-1);
    const auto begun = std::make_shared<QSemaphore>();
    const auto others = std::make_shared<QSemaphore>();
    for (int i = 0; i < threads; ++i)
        pool->start([begun, others] {
            begun->release();
            others->acquire(); // so that the next one takes a thread of its own
        });
    begun->acquire(threads);
    others->release(threads);
}

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

Console::Console(const QString &configFile, Access::Settings settings, QObject *parent)
    : QObject(parent), m_access(configFile, settings), m_box(configFile, m_pool),
      m_hub(m_box.history(), [this](const QByteArray &session) {
          m_access.followPassword();
          return m_access.mayLook(session);
      })
{
    startThreads(&m_pool);
    connect(&m_box, &Box::recorded, &m_hub, &EventHub::scheduleFlush);
    connect(&m_box, &Box::stateChanged, this,
        [this](const QJsonObject &state) { m_hub.sendState(compact(state)); });
    connect(&m_hub, &EventHub::watchedChanged, &m_box, &Box::setWatched);
}

Console::~Console()
{
    m_pool.waitForDone();
}

void Console::handle(Connection *connection, const Request &request)
{
    if (m_access.followPassword())
        m_hub.dropEnded();
    const Reply refusal = m_access.refusal(request);
    if (refusal.status != 0)
        connection->answer(refusal);
    else if (request.path.startsWith(QLatin1String("/api/")))
        handleApi(connection, request);
    else if (request.method != "GET" && request.method != "HEAD")
        connection->answer(wrongMethod("GET, HEAD"));
    else
        connection->answer(Assets::answer(request.path, request.headers.value("if-none-match")));
}

void Console::handleApi(Connection *connection, const Request &request)
{
    const QByteArrayList methods = methodsAt(request.path);
    if (!methods.isEmpty() && !methods.contains(request.method))
        connection->answer(wrongMethod(methods.join(", ")));
    else if (request.path == loginPath)
        logIn(connection, request);
    else if (!m_access.mayLook(Access::sessionId(request)))
        connection->answer(noSession());
    else if (request.path == statePath)
        sendState(connection, request);
    else if (request.path == eventsPath)
        sendEvents(connection, request);
    else if (request.method == "POST" && !m_access.mayChange(request))
        connection->answer(Reply::error(
            401, QStringLiteral("the header X-Session-Token does not hold the session's token")));
    else if (request.path == logoutPath)
        connection->answer(logOut(request));
    else if (isChange(request.path))
        change(connection, request);
    else
        connection->answer(Reply::notFound());
}

QJsonObject Console::session(const Request &request) const
{
    const QByteArray token = m_access.token(Access::sessionId(request));
    QJsonObject result{
        {QStringLiteral("passwordSet"), m_access.hasPassword()}, {QStringLiteral("open"), !token.isEmpty()}};
    if (!token.isEmpty())
        result.insert(QStringLiteral("token"), QString::fromLatin1(token));
    return result;
}

/// Waits a moment for a check when the last one is old; who follows the events gets its outcome whenever it
/// comes. Without an uplink a check takes long.
void Console::sendState(Connection *connection, const Request &request)
{
    const QJsonObject sessionRow = session(request);
    if (m_box.check().isRecent()) {
        readState(connection, sessionRow);
        return;
    }
    auto *patience = new QTimer(connection);
    patience->setSingleShot(true);
    connect(patience, &QTimer::timeout, this, [this, connection, sessionRow, patience] {
        patience->deleteLater();
        readState(connection, sessionRow);
    });
    connect(&m_box.check(), &Check::finished, patience, [patience] { patience->start(0); });
    patience->start(checkPatienceMs);
    m_box.check().start();
}

void Console::readState(Connection *connection, const QJsonObject &sessionRow)
{
    const QPointer<Connection> waiting(connection);
    m_pool.start([this, waiting, sessionRow] {
        const FileState::Snapshot snapshot = m_box.file().read();
        QMetaObject::invokeMethod(this, [this, waiting, sessionRow, snapshot] {
            QJsonObject state = m_box.state(snapshot);
            state.insert(QStringLiteral("session"), sessionRow);
            if (waiting)
                waiting->answer(Reply::json(state));
        });
    });
}

void Console::sendEvents(Connection *connection, const Request &request)
{
    if (m_hub.isFull()) {
        connection->answer(
            tryLater(503, 10, QStringLiteral("%1 clients listen already").arg(EventHub::maximumClients)));
        return;
    }
    const Reply head{200, "text/event-stream", {}, {}, true};
    if (request.method == "HEAD") {
        connection->answer(head);
        return;
    }
    QByteArray lastEventId = request.headers.value("last-event-id");
    if (lastEventId.isEmpty())
        lastEventId = request.query.queryItemValue(QStringLiteral("after")).toLatin1();
    QTcpSocket *socket = connection->release();
    socket->write(head.message(true));
    m_hub.add(socket, lastEventId, Access::sessionId(request));
    connection->deleteLater();
    m_box.readSoon(); // so that it gets a state that is no older than the records
}

void Console::logIn(Connection *connection, const Request &request)
{
    const QJsonValue password =
        QJsonDocument::fromJson(request.body).object().value(QStringLiteral("password"));
    if (!password.isString()) {
        connection->answer(
            Reply::error(400, QStringLiteral("the body has to be a JSON object with a member \"password\"")));
        return;
    }
    const QHostAddress source = m_access.source(request);
    if (m_hashing >= maximumHashing) {
        connection->answer(tryLater(503, 1, QStringLiteral("others are logging in; try again")));
        return;
    }
    const int waitMs = m_access.guard().begin(source);
    if (waitMs > 0) {
        connection->answer(
            tryLater(429, waitMs / 1000 + 1, QStringLiteral("too many wrong passwords: wait")));
        return;
    }
    ++m_hashing;
    const QPointer<Connection> waiting(connection);
    const QDateTime stamp = m_access.passwordStamp();
    m_pool.start([this, waiting, request, stamp, given = password.toString().toUtf8()] {
        const bool matched = m_access.passwordFile().matches(given);
        QMetaObject::invokeMethod(this, [this, waiting, request, stamp, matched] {
            --m_hashing;
            if (m_access.followPassword())
                m_hub.dropEnded();
            // The password may have been changed meanwhile.
            handleLogin(waiting, request, matched && stamp == m_access.passwordStamp());
        });
    });
}

void Console::handleLogin(Connection *connection, const Request &request, bool matched)
{
    if (matched)
        m_access.guard().succeeded(m_access.source(request));
    if (!connection)
        return;
    if (!matched) {
        connection->answer(Reply::error(401, QStringLiteral("the password is wrong")));
        return;
    }
    QByteArray token;
    const QByteArray cookie = m_access.openSession(request, token);
    Reply reply = Reply::json({{QStringLiteral("token"), QString::fromLatin1(token)}});
    reply.headers.append({"Set-Cookie", cookie});
    connection->answer(reply);
}

Reply Console::logOut(const Request &request)
{
    Reply reply = Reply::json({{QStringLiteral("loggedOut"), true}});
    reply.headers.append({"Set-Cookie", m_access.closeSession(request)});
    m_hub.dropEnded();
    return reply;
}

void Console::change(Connection *connection, const Request &request)
{
    QJsonParseError error = {};
    const QJsonDocument document = QJsonDocument::fromJson(request.body, &error);
    if (!document.isObject() && !request.body.isEmpty()) {
        connection->answer(Reply::error(400, QStringLiteral("the body has to be a JSON object")));
        return;
    }
    const QPointer<Connection> waiting(connection);
    m_pool.start([this, waiting, path = request.path, body = document.object()] {
        Reply reply;
        try {
            reply = carryOut(path, body, m_box.file().configFile());
        } catch (const CommandError &failure) {
            reply = Reply::error(422, failure.message());
        }
        QMetaObject::invokeMethod(this, [this, waiting, reply] {
            m_box.readSoon();
            if (waiting)
                waiting->answer(reply);
        });
    });
}
