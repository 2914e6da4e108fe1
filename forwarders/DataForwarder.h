#pragma once

#include "config/DataForwarderConfig.h"
#include "config/RadioAdapterConfig.h"
#include "protocol/IcomCommand.h"
#include "protocol/IcomCommandResponse.h"
#include "protocol/RadioLink.h"

#include <QObject>
#include <QSharedPointer>
#include <QTimer>

/// One output: takes what the radios hear and what they are sent and passes it on to one destination.
/// An output never reports a failure to its caller; failures become the status of its row and log lines.
class DataForwarder : public QObject
{
    Q_OBJECT

public:
    /// `id` is the row id in data_forwarder.
    DataForwarder(QObject *parent, int id);

    /// Whether it takes a frame without ever waiting: then it gets each one before the outputs that may hold
    /// it up.
    virtual bool isPrompt() const { return false; }

public slots:
    /// One frame received from a radio; to be called by the adapter's signal.
    virtual void forward(QSharedPointer<IcomCommandResponse> resp) = 0;
    /// One command written to a radio; to be called by the adapter's signal.
    virtual void forwardSent(QSharedPointer<IcomCommand> command) = 0;
    /// A radio was found, identified or given up, or its row has changed; to be called by the adapter's
    /// signal.
    virtual void radioChanged(RadioLink::State) { }

protected:
    int id() const { return m_id; }
    /// The row as it stands now.
    DataForwarderConfig configuration() const;
    /// Writes the status of this output's row, also when it does not change.
    void setStatus(int status) const;
    /// For an output that writes its status only when it changes: one that cannot be written is written
    /// later, unless another one follows.
    void keepStatus(int status);
    /// The row of the radio whose adapter emitted the signal; a default record when there is none.
    QSharedPointer<RadioAdapterConfig> senderConfig() const;

private:
    const int m_id;
    int m_keptStatus = 0;
    QTimer m_statusRetry{this};
};
