#include "serial/SerialAdapter.h"

#include "config/ConfigDatabase.h"
#include "config/ConfigKeys.h"
#include "protocol/ActionCommands.h"
#include "protocol/Frame.h"
#include "protocol/IdentificationCommands.h"
#include "protocol/Notifications.h"
#include "serial/DevicePath.h"
#include "serial/MyQSerialPort.h"

#include <QDebug>
#include <QSignalMapper>
#include <QTimer>

namespace {

constexpr int tickInterval = 500; // ms
constexpr int triesPerBaudRate = 1;
constexpr int longestLine = 64 * 1024; // bytes

} // namespace

SerialAdapter::SerialAdapter(QObject *parent)
    : QObject(parent), m_config(QSharedPointer<RadioAdapterConfig>::create()), m_timer(new QTimer(this))
{
    m_timer->setInterval(tickInterval);
}

SerialAdapter::~SerialAdapter()
{
    closePort();
    // Outputs may still hold commands and responses of this radio. They are shared, so they must not be
    // deleted as children: they go on without a parent.
    const QObjectList offspring = children();
    for (QObject *child : offspring) {
        if (qobject_cast<IcomCommand *>(child) || qobject_cast<IcomCommandResponse *>(child))
            child->setParent(nullptr);
    }
}

void SerialAdapter::start(QSharedPointer<RadioAdapterConfig> config)
{
    m_config = config;
    emit radioChanged(Searching);
    if (m_config->tx_enabled) {
        m_validated = false;
        connect(m_timer, &QTimer::timeout, this, &SerialAdapter::timer_event);
        enqueueIdentification();
    }
    openPort();
}

void SerialAdapter::enqueueIdentification()
{
    constexpr int clearDelay = DisplayTextCommand::defaultDelay;
    enqueueCommand(QSharedPointer<RetrieveEsnCommand>::create(this));
    enqueueCommand(QSharedPointer<DisplayTextCommand>::create(this, QString(), clearDelay));
    enqueueCommand(QSharedPointer<RetrieveCloningCommentCommand>::create(this, 1));
    enqueueCommand(QSharedPointer<RetrieveCloningCommentCommand>::create(this, 2));
    enqueueCommand(QSharedPointer<RetrieveDspFirmwareCommand>::create(this));
    enqueueCommand(QSharedPointer<RetrieveFirmwareVersionCommand>::create(this));
    enqueueCommand(QSharedPointer<RetrieveFrontFirmwareCommand>::create(this));
    enqueueCommand(QSharedPointer<DisplayTextCommand>::create(
        this, QStringLiteral("Radio nommee <name> branchee sur le port <port>"), clearDelay));
}

void SerialAdapter::openPort()
{
    closePort();
    m_port = new MyQSerialPort; // deleted by closePort()
    m_port->setPortName(m_config->port);
    m_device = devicePath(m_config->port);
    if (!m_config->autobaud)
        m_port->setFixedBaudRate(m_config->baudrate);
    m_timer->start();
    if (!m_port->open(QIODevice::ReadWrite)) {
        const QString reason = m_port->errorString();
        stop();
        qInfo() << "Error (" << m_config->port << ") : " << reason;
        return;
    }
    connect(m_port, &QSerialPort::readyRead, this, &SerialAdapter::readData);
    // The base class's signal: the port's own one of that name is never emitted.
    connect(m_port, &QSerialPort::errorOccurred, this, &SerialAdapter::handlePortError);
}

void SerialAdapter::closePort()
{
    if (!m_port)
        return;
    m_port->disconnect(this);
    if (m_port->isOpen())
        m_port->close();
    m_port->deleteLater(); // this may run inside a signal of the port
    m_port = nullptr;
}

void SerialAdapter::handlePortError(QSerialPort::SerialPortError error)
{
    const bool isGone = error == QSerialPort::ReadError || error == QSerialPort::WriteError
        || error == QSerialPort::ResourceError;
    if (!isGone || !m_port || !m_port->isOpen())
        return;
    qInfo() << "Port" << m_config->port << "is gone :" << error;
    stop();
}

void SerialAdapter::stop()
{
    if (m_stopped)
        return;
    m_stopped = true;
    m_timer->stop();
    m_config->status = RadioAdapterConfig::Stopped;
    ConfigDatabase::getInstance()->updateDiscoveredAdapter(m_config);
    m_commandQueue.clear();
    closePort();
    emit radioChanged(Stopped);
    emit adapterStopped();
}

void SerialAdapter::enqueueCommand(QSharedPointer<IcomCommand> command)
{
    if (!m_config->tx_enabled)
        return; // a radio that is only listened to gets no command: one that waits would claim every frame
    if (command->expectsResponse())
        connect(command.data(), &IcomCommand::commandResponse, this, &SerialAdapter::handleCommandResponse);
    command->setParent(this);
    m_commandQueue.append(command);
}

void SerialAdapter::addDelayedCommand(QSharedPointer<IcomCommand> command, int delayMs)
{
    auto *mapper = new QSignalMapper(this); // one for each call, for as long as the adapter lives
    connect(mapper, &QSignalMapper::mappedInt, this, &SerialAdapter::handleDelayedCommand);
    auto *timer = new QTimer(this);
    timer->setSingleShot(true);
    timer->setInterval(delayMs);

    command->setParent(this);
    m_delayedCommands.insert(++m_delayedCommandCount, command);
    mapper->setMapping(timer, m_delayedCommandCount);
    connect(timer, &QTimer::timeout, mapper, QOverload<>::of(&QSignalMapper::map));
    connect(timer, &QTimer::timeout, timer, &QObject::deleteLater);
    timer->start();
}

void SerialAdapter::handleDelayedCommand(int commandId)
{
    // The command waits for the next opportunity to send.
    if (const QSharedPointer<IcomCommand> command = m_delayedCommands.take(commandId))
        enqueueCommand(command);
}

void SerialAdapter::timer_event()
{
    if (m_validated) {
        sendNextCommand();
    } else if (m_retryCount < triesPerBaudRate) {
        sendNextCommand();
        ++m_retryCount;
    } else if (!m_config->autobaud || !m_port->tryNextBaudRate()) {
        stop();
    } else if (!m_stopped) {
        m_retryCount = 0;
        m_timer->start();
    }
}

void SerialAdapter::readData()
{
    m_buffer += m_port->readAll();
    const int lastEnd = m_buffer.lastIndexOf(Frame::ETX);
    if (lastEnd == -1) {
        dropEndlessLine();
        return;
    }
    // Bytes between an ETX and the next STX stay glued to the frame before them, on purpose.
    const QList<QByteArray> pieces = m_buffer.split(Frame::STX);
    for (QByteArray piece : pieces) {
        if (!piece.contains(Frame::ETX))
            continue;
        handleFrame(piece.replace(QByteArray(1, Frame::ETX), QByteArray()));
        if (m_stopped)
            return;
        m_timer->start();
    }
    m_buffer.remove(0, lastEnd + 1);
    dropEndlessLine();
}

void SerialAdapter::dropEndlessLine()
{
    if (m_buffer.size() <= longestLine)
        return;
    qWarning() << "Dropping" << m_buffer.size() << "bytes without an end from port" << m_config->port;
    m_buffer.clear();
}

void SerialAdapter::handleFrame(const QByteArray &frame)
{
    if (!m_validated && headRecognises(frame))
        validIcomAdapter();
    if (m_stopped)
        return;
    if (!m_validated) {
        handleFrameOfUnknownRadio(frame);
        return;
    }
    // The frame that has just identified the radio is offered a second time, to the new head, on purpose.
    if (headRecognises(frame))
        return;
    if (const auto notification = parseNotification(this, frame))
        handleCommandResponse(notification);
}

bool SerialAdapter::headRecognises(const QByteArray &frame) const
{
    if (m_commandQueue.isEmpty())
        return false;
    const QSharedPointer<IcomCommand> head = m_commandQueue.first(); // may leave the queue while it answers
    return head->validResponse(frame);
}

void SerialAdapter::handleFrameOfUnknownRadio(const QByteArray &frame)
{
    const bool onlyListens = !m_config->tx_enabled && !m_config->autobaud;
    if (onlyListens
        || ConfigDatabase::getInstance()->getSystemConfigurationValue(FORWARD_INVALID_DATA_KEY)
            == QLatin1String("true"))
        forwardUnsollicited(frame);
}

void SerialAdapter::forwardUnsollicited(const QByteArray &frame)
{
    handleCommandResponse(QSharedPointer<UnsollicitedCommandResponse>::create(this, frame));
}

void SerialAdapter::validIcomAdapter()
{
    if (m_stopped)
        return;
    m_validated = true;
    m_config->status = RadioAdapterConfig::Identified;
    ConfigDatabase::getInstance()->updateDiscoveredAdapter(m_config);
    emit radioChanged(Identified);
}

void SerialAdapter::handleCommandResponse(QSharedPointer<IcomCommandResponse> response)
{
    response->stampNow();
    emit dataReceived(response);
    if (m_stopped)
        return;
    response->process();

    const int type = response->responseType();
    if (m_commandQueue.isEmpty() || type == IcomCommandResponse::Unsollicited)
        return;
    const int expected = m_commandQueue.first()->commandType();
    if (expected == type) {
        completeHeadCommand(*response);
    } else if (expected != IcomCommand::Action) {
        qWarning().noquote()
            << QStringLiteral("Got a response %1 while %2 was expected. Ignored.").arg(type).arg(expected);
    }
}

void SerialAdapter::completeHeadCommand(const IcomCommandResponse &response)
{
    m_commandQueue.removeFirst();
    if (const auto *answer = qobject_cast<const RetrieveEsnCommandResponse *>(&response)) {
        qInfo() << "let store the radio ESN : " << answer->esn();
        m_config->esn = answer->esn();
        ConfigDatabase::getInstance()->updateDiscoveredAdapter(m_config);
        if (m_validated) // otherwise that is told next, with the serial number
            emit radioChanged(Identified);
    }
    m_timer->start();
    sendNextCommand();
}

bool SerialAdapter::isAnnounced() const
{
    const QString forwardInvalidData =
        ConfigDatabase::getInstance()->getSystemConfigurationValue(FORWARD_INVALID_DATA_KEY);
    if (forwardInvalidData == QLatin1String("false"))
        return m_validated;
    return forwardInvalidData == QLatin1String("true");
}

void SerialAdapter::sendNextCommand()
{
    if (!m_config->tx_enabled || m_commandQueue.isEmpty())
        return;
    const QSharedPointer<IcomCommand> head = m_commandQueue.first();
    if (isAnnounced()) {
        head->stampNow();
        emit dataSent(head);
        if (m_stopped)
            return;
    }
    if (!head->execute(m_port)) {
        stop();
        return;
    }
    if (!head->expectsResponse())
        m_commandQueue.removeOne(head);
}
