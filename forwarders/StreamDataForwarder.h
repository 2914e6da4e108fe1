#pragma once

#include "forwarders/DataForwarder.h"
#include "forwarders/StreamServer.h"

#include <QDateTime>
#include <QMap>
#include <QTimer>

/// The "STREAM" output: any number of programs join and leave as they please and get a JSON record for every
/// frame, every command and every change of a radio. Listens on a Unix socket or on a TCP port, tried again
/// every 2 s while that fails.
class StreamDataForwarder : public DataForwarder
{
    Q_OBJECT

public:
    StreamDataForwarder(QObject *parent, int id);

    bool isPrompt() const override { return true; }

public slots:
    void forward(QSharedPointer<IcomCommandResponse> resp) override;
    void forwardSent(QSharedPointer<IcomCommand> command) override;
    void radioChanged(RadioLink::State state) override;

private:
    struct RunningRadio
    {
        QSharedPointer<RadioAdapterConfig> config;
        RadioLink::State state;
        QDateTime since;
    };

    void listen();
    QByteArray greeting() const;

    QString m_target;
    int m_port = 0;
    QString m_problem; // what keeps it from listening, as it was logged
    QTimer m_retry;
    QMap<QString, RunningRadio> m_radios; // by port
    StreamServer m_server;
};
