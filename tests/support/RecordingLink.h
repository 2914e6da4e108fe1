#pragma once

#include "config/RadioAdapterConfig.h"
#include "protocol/IcomCommand.h"
#include "protocol/RadioLink.h"

#include <QObject>

/// Stands for an adapter: keeps what it is given to send later, and emits what it is told to.
class RecordingLink : public QObject, public RadioLink
{
    Q_OBJECT
    Q_INTERFACES(RadioLink)

public:
    explicit RecordingLink(const QString &name = QString(), const QString &port = QString())
    {
        m_config->name = name;
        m_config->port = port;
    }

    QSharedPointer<RadioAdapterConfig> config() const override { return m_config; }
    void enqueueCommand(QSharedPointer<IcomCommand>) override { }
    void addDelayedCommand(QSharedPointer<IcomCommand> command, int delayMs) override
    {
        delayed.append(QString::number(delayMs) + QLatin1Char(' ') + command->commandText());
    }

    QStringList delayed; ///< delay in ms and text of each command

signals:
    void dataReceived(QSharedPointer<IcomCommandResponse> resp);
    void dataSent(QSharedPointer<IcomCommand> command);
    void radioChanged(RadioLink::State state);

private:
    const QSharedPointer<RadioAdapterConfig> m_config = QSharedPointer<RadioAdapterConfig>::create();
};
