#pragma once

#include "config/ConfigKeys.h"
#include "forwarders/CloudMessage.h"
#include "forwarders/DataForwarder.h"
#include "forwarders/PubSubPublisher.h"

/// The "PUBSUB" output: every frame and command as one message of a Google Cloud Pub/Sub topic, with the same
/// JSON object as the GCP output, and kept until the server has accepted it: what is not accepted within half
/// a second waits on the disk, through failures of the network and of the power.
class PubSubDataForwarder : public DataForwarder
{
    Q_OBJECT

public:
    PubSubDataForwarder(QObject *parent, int id, const PublisherTimes &times = PublisherTimes());

    bool isPrompt() const override { return true; }

public slots:
    void forward(QSharedPointer<IcomCommandResponse> resp) override;
    void forwardSent(QSharedPointer<IcomCommand> command) override;

private:
    void add(const CloudMessage &message);
    void refreshSettings();
    DataForwarderConfig readRow();
    void write();
    void scheduleWrite();
    void showResult(bool accepted);
    void showStatus(DataForwarderConfig::ForwarderStatus status);

    PubSubQueue m_queue;
    PubSubPublisher m_publisher;
    CloudOwner m_owner{UNDEFINED_VALUE, UNDEFINED_VALUE};
    QString m_limit; // as the key says it
    QElapsedTimer m_settingsAge;
    qint64 m_settingsLifetime = 0; // ms
    QTimer m_sendTimer;
    QTimer m_writeTimer;
    bool m_accepted = false; // the last request
    bool m_isRefused = false; // the last request to publish
    DataForwarderConfig::ForwarderStatus m_status = DataForwarderConfig::Idle;
};
