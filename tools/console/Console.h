#pragma once

#include "tools/console/Access.h"
#include "tools/console/Box.h"
#include "tools/console/Connection.h"
#include "tools/console/EventHub.h"

/// Answers requests: the page, and what stands under /api. What may wait for a file or a hash runs
/// on a thread of the pool, and its answer follows.
class Console : public QObject
{
    Q_OBJECT

public:
    Console(const QString &configFile, Access::Settings settings, QObject *parent = nullptr);
    ~Console() override;

    void start() { m_box.start(); }
    void handle(Connection *connection, const Request &request);

private:
    void handleApi(Connection *connection, const Request &request);
    void sendState(Connection *connection, const Request &request);
    void readState(Connection *connection, const QJsonObject &sessionRow);
    void sendEvents(Connection *connection, const Request &request);
    void logIn(Connection *connection, const Request &request);
    void handleLogin(Connection *connection, const Request &request, bool matched);
    Reply logOut(const Request &request);
    void change(Connection *connection, const Request &request);
    QJsonObject session(const Request &request) const;

    QThreadPool m_pool;
    Access m_access;
    Box m_box;
    EventHub m_hub;
    int m_hashing = 0;
};
