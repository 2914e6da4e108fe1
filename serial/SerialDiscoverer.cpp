#include "serial/SerialDiscoverer.h"

#include "config/ConfigDatabase.h"
#include "forwarders/ForwarderKinds.h"
#include "serial/DevicePath.h"
#include "serial/SerialAdapter.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QSerialPortInfo>
#include <QTimer>

#include <algorithm>
#include <sys/stat.h>

namespace {

constexpr int scanInterval = 5000; // ms
const QString uartMethod = QStringLiteral("UART");
const QString staticMethod = QStringLiteral("STATIC");

bool isCharacterDevice(const QString &path)
{
    struct stat status = {};
    return !path.isEmpty() && ::stat(QFile::encodeName(path).constData(), &status) == 0
        && S_ISCHR(status.st_mode);
}

/// The row that decides for a port: the last one that names it. Null when there is none.
QSharedPointer<RadioAdapterConfig> rowOf(const QString &portName)
{
    QSharedPointer<RadioAdapterConfig> found;
    const auto rows = ConfigDatabase::getInstance()->getRadioAdapters();
    for (const auto &row : rows) {
        if (row->port == portName)
            found = row;
    }
    return found;
}

} // namespace

SerialDiscoverer::SerialDiscoverer(QObject *parent) : QObject(parent), m_scanTimer(new QTimer(this))
{
    m_scanTimer->setInterval(scanInterval);
    connect(m_scanTimer, &QTimer::timeout, this, &SerialDiscoverer::discover);
}

void SerialDiscoverer::initForwarders()
{
    m_areForwardersDue = !makeForwarders();
    m_scanTimer->start();
}

bool SerialDiscoverer::makeForwarders()
{
    const QList<DataForwarderConfig> rows = ConfigDatabase::getInstance()->getDataForwarders();
    noteAccess(!ConfigDatabase::getInstance()->lastReadFailed());
    if (m_isPutOff)
        return false;
    for (const DataForwarderConfig &row : rows) {
        if (!row.enabled)
            continue;
        const auto forwarder = createForwarder(row);
        if (!forwarder)
            continue;
        // The others may hold a frame up for a long time.
        const auto place = std::find_if(m_forwarders.begin(), m_forwarders.end(),
            [&](const auto &each) { return forwarder->isPrompt() && !each->isPrompt(); });
        m_forwarders.insert(place, forwarder);
    }
    return true;
}

void SerialDiscoverer::noteAccess(bool succeeded)
{
    if (!succeeded && !m_isPutOff)
        qInfo() << "The configuration file cannot be read - new radios and outputs wait";
    m_isPutOff = !succeeded;
}

QStringList SerialDiscoverer::availablePortNames() const
{
    QStringList names;
    const QList<QSerialPortInfo> ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &port : ports)
        names.append(port.portName());
    return names;
}

void SerialDiscoverer::discover()
{
    if (m_areForwardersDue) { // a radio that spoke before would not be heard
        m_areForwardersDue = !makeForwarders();
        if (m_areForwardersDue)
            return;
    }
    noteAccess(examinePorts());
}

bool SerialDiscoverer::examinePorts()
{
    // First, since a STATIC row may name a device that the system lists, too.
    const std::optional<QStringList> takenDevices = examineStaticPorts();
    if (!takenDevices)
        return false;
    QStringList portNames = availablePortNames();
    portNames.removeDuplicates(); // a port that cannot be opened is tried once in a scan
    for (const QString &portName : qAsConst(portNames)) {
        if (!takenDevices->contains(devicePath(portName)) && !examinePort(portName, uartMethod))
            return false;
    }
    return true;
}

std::optional<QStringList> SerialDiscoverer::examineStaticPorts()
{
    QStringList devices;
    QStringList portNames;
    const auto rows = ConfigDatabase::getInstance()->getRadioAdapters();
    if (ConfigDatabase::getInstance()->lastReadFailed())
        return std::nullopt;
    for (auto row = rows.crbegin(); row != rows.crend(); ++row) {
        const QString device = devicePath((*row)->port);
        if ((*row)->method != staticMethod || devices.contains(device) || !isCharacterDevice(device))
            continue; // of the rows for one device the last one counts
        devices.prepend(device);
        portNames.prepend((*row)->port);
    }
    for (const QString &portName : qAsConst(portNames)) {
        if (!examinePort(portName, staticMethod))
            return std::nullopt;
    }
    return devices;
}

bool SerialDiscoverer::examinePort(const QString &portName, const QString &method)
{
    ConfigDatabase *database = ConfigDatabase::getInstance();
    const QStringList blacklist = database->getPortBlacklist();
    if (database->lastReadFailed())
        return false;
    if (!blockingEntry(portName, method, blacklist).isNull() || isDriven(portName))
        return true;
    QSharedPointer<RadioAdapterConfig> config = rowOf(portName);
    if (database->lastReadFailed())
        return false;
    if (!config)
        config = registerPort(portName);
    if (config->enabled)
        startAdapter(config);
    return true;
}

bool SerialDiscoverer::isDriven(const QString &portName) const
{
    const QString device = devicePath(portName);
    return std::any_of(m_adapters.cbegin(), m_adapters.cend(), [&](const SerialAdapter *adapter) {
        return adapter->portName() == portName || (!device.isEmpty() && adapter->device() == device);
    });
}

QSharedPointer<RadioAdapterConfig> SerialDiscoverer::registerPort(const QString &portName) const
{
    auto config = QSharedPointer<RadioAdapterConfig>::create();
    config->port = portName;
    config->name = QString(portName).remove(QStringLiteral("ttyUSB"));
    config->method = uartMethod; // for every port, also the USB ones
    config->autobaud = true;
    config->tx_enabled = true;
    config->enabled = true;
    config->discovered = true;
    ConfigDatabase::getInstance()->addDiscoveredAdapter(config);
    return config;
}

void SerialDiscoverer::startAdapter(const QSharedPointer<RadioAdapterConfig> &config)
{
    auto *adapter = new SerialAdapter; // deleted by adapterStopped(), or when the application ends
    connect(qApp, &QCoreApplication::aboutToQuit, adapter, &QObject::deleteLater);
    connect(adapter, &SerialAdapter::adapterStopped, this, &SerialDiscoverer::adapterStopped);
    for (const auto &forwarder : qAsConst(m_forwarders)) {
        connect(adapter, &SerialAdapter::dataReceived, forwarder.data(), &DataForwarder::forward);
        connect(adapter, &SerialAdapter::dataSent, forwarder.data(), &DataForwarder::forwardSent);
        connect(adapter, &SerialAdapter::radioChanged, forwarder.data(), &DataForwarder::radioChanged);
    }
    // Listed first: an adapter whose port cannot be opened stops inside start(), and must be found then.
    m_adapters.append(adapter);
    adapter->start(config);
}

void SerialDiscoverer::adapterStopped()
{
    const auto *stopped = qobject_cast<SerialAdapter *>(sender());
    const auto found = std::find_if(m_adapters.cbegin(), m_adapters.cend(),
        [&](const SerialAdapter *adapter) { return stopped && adapter->portName() == stopped->portName(); });
    if (found == m_adapters.cend())
        return;
    SerialAdapter *adapter = *found;
    m_adapters.removeAll(adapter);
    adapter->disconnect();
    adapter->deleteLater();
}

void SerialDiscoverer::broadcastCommand(const QSharedPointer<IcomCommand> &command)
{
    for (SerialAdapter *adapter : qAsConst(m_adapters))
        adapter->enqueueCommand(command);
}

void SerialDiscoverer::broadcastCommand(const QSharedPointer<IcomCommand> &command, int delayMs)
{
    for (SerialAdapter *adapter : qAsConst(m_adapters))
        adapter->addDelayedCommand(command, delayMs);
}
