#pragma once

#include "config/RadioAdapterConfig.h"
#include "protocol/IcomCommand.h"
#include "protocol/IcomCommandResponse.h"
#include "protocol/RadioLink.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSerialPort>
#include <QSharedPointer>

class MyQSerialPort;
class QTimer;

/// One radio on one serial port: opens the port, identifies the radio, cuts what arrives into frames and
/// sends one command at a time. Once stopped it never comes back; the discoverer makes a new one.
class SerialAdapter : public QObject, public RadioLink
{
    Q_OBJECT
    Q_INTERFACES(RadioLink)

public:
    explicit SerialAdapter(QObject *parent = nullptr);
    ~SerialAdapter() override;

    /// Opens the port named by `config` and begins to identify the radio. May stop() the adapter at once.
    void start(QSharedPointer<RadioAdapterConfig> config);
    /// Gives the radio up: closes the port, stores status 2 and emits adapterStopped(), once.
    void stop();

    QSharedPointer<RadioAdapterConfig> config() const override { return m_config; }
    void enqueueCommand(QSharedPointer<IcomCommand> command) override;
    void addDelayedCommand(QSharedPointer<IcomCommand> command, int delayMs) override;

    /// The port as the radio's row names it, such as ttyUSB0.
    QString portName() const { return m_config->port; }
    /// The device file that the port's name led to when the adapter was started; empty when there was none.
    QString device() const { return m_device; }

signals:
    void adapterStopped();
    /// Every frame that is taken in, parsed and time-stamped.
    void dataReceived(QSharedPointer<IcomCommandResponse> resp);
    /// A command that is about to be written, as far as forward_invalid_data allows.
    void dataSent(QSharedPointer<IcomCommand> command);
    /// The radio is searched for, is identified, tells its serial number later (Identified again) or is given
    /// up.
    void radioChanged(RadioLink::State state);

private slots:
    void readData();
    void timer_event();
    void handleFrame(const QByteArray &frame);
    void handleCommandResponse(QSharedPointer<IcomCommandResponse> response);
    void validIcomAdapter();
    void handleDelayedCommand(int commandId);

private:
    void enqueueIdentification();
    void openPort();
    void closePort();
    void handlePortError(QSerialPort::SerialPortError error);
    void dropEndlessLine();
    bool headRecognises(const QByteArray &frame) const;
    void handleFrameOfUnknownRadio(const QByteArray &frame);
    void forwardUnsollicited(const QByteArray &frame);
    void completeHeadCommand(const IcomCommandResponse &response);
    bool isAnnounced() const;
    void sendNextCommand();

    QSharedPointer<RadioAdapterConfig> m_config;
    QByteArray m_buffer;
    QList<QSharedPointer<IcomCommand>> m_commandQueue; // the head is in progress
    QMap<int, QSharedPointer<IcomCommand>> m_delayedCommands;
    int m_delayedCommandCount = 0;
    MyQSerialPort *m_port = nullptr;
    bool m_validated = false;
    bool m_stopped = false;
    QString m_device;
    QTimer *m_timer; // the send and retry clock
    int m_retryCount = 0;
};
