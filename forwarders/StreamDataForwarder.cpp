#include "forwarders/StreamDataForwarder.h"

#include "forwarders/StreamRecords.h"

#include <QDebug>

namespace {

constexpr int retryDelay = 2000; // ms

} // namespace

StreamDataForwarder::StreamDataForwarder(QObject *parent, int id)
    : DataForwarder(parent, id), m_server([this] { return greeting(); })
{
    setStatus(DataForwarderConfig::Idle);
    const DataForwarderConfig config = configuration();
    m_target = config.target;
    m_port = config.port;
    m_retry.setSingleShot(true);
    m_retry.setInterval(retryDelay);
    connect(&m_retry, &QTimer::timeout, this, &StreamDataForwarder::listen);
    listen();
}

void StreamDataForwarder::listen()
{
    const QString problem = m_server.listen(m_target, m_port);
    if (problem.isEmpty()) {
        qInfo() << "Stream listens on" << m_target;
        keepStatus(DataForwarderConfig::Working);
        return;
    }
    m_retry.start();
    if (problem == m_problem)
        return;
    m_problem = problem;
    qInfo() << "Stream cannot listen on" << m_target << ":" << problem;
    keepStatus(DataForwarderConfig::Failed);
}

QByteArray StreamDataForwarder::greeting() const
{
    QByteArray records = StreamRecords::gateway();
    for (const RunningRadio &radio : m_radios)
        records += StreamRecords::radio(*radio.config, radio.state, radio.since);
    return records;
}

void StreamDataForwarder::forward(QSharedPointer<IcomCommandResponse> resp)
{
    if (m_server.hasClients())
        m_server.send(StreamRecords::frame(*senderConfig(), *resp));
}

void StreamDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    if (m_server.hasClients())
        m_server.send(StreamRecords::command(*senderConfig(), *command));
}

void StreamDataForwarder::radioChanged(RadioLink::State state)
{
    const RunningRadio radio{senderConfig(), state, QDateTime::currentDateTimeUtc()};
    if (state == RadioLink::Stopped)
        m_radios.remove(radio.config->port);
    else
        m_radios.insert(radio.config->port, radio);
    if (m_server.hasClients())
        m_server.send(StreamRecords::radio(*radio.config, state, radio.since));
}
