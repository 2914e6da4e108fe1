#pragma once

#include "forwarders/DataForwarder.h"
#include "protocol/IcomCommand.h"

#include <QList>
#include <QObject>
#include <QSharedPointer>
#include <QStringList>

#include <optional>

class QTimer;
class SerialAdapter;

/// Owns the outputs and the running adapters. Every five seconds it looks at the ports of the STATIC rows,
/// then at the serial ports, and starts an adapter on each one that is allowed and not driven yet.
class SerialDiscoverer : public QObject
{
    Q_OBJECT

public:
    explicit SerialDiscoverer(QObject *parent = nullptr);

    /// Makes one output for each enabled row and starts the scan timer; the first scan comes 5 s later. While
    /// the configuration file cannot be read, each scan tries to make the outputs and does nothing else.
    void initForwarders();

    /// Hands the same command to every running adapter.
    void broadcastCommand(const QSharedPointer<IcomCommand> &command);
    /// The same after `delayMs` milliseconds.
    void broadcastCommand(const QSharedPointer<IcomCommand> &command, int delayMs);

protected:
    /// Names of the machine's serial ports, such as ttyUSB0, in the order in which they are enumerated.
    virtual QStringList availablePortNames() const;

private slots:
    void discover();
    void adapterStopped();

private:
    bool makeForwarders();
    // Each of these yields nothing, or false, as soon as the file cannot be read: whether a port may be
    // opened is not known then.
    bool examinePorts();
    /// Looks at the ports of the STATIC rows; yields their devices, which no other row may drive then: not
    /// even where the STATIC row is disabled or its port blocked.
    std::optional<QStringList> examineStaticPorts();
    bool examinePort(const QString &portName, const QString &method);
    void noteAccess(bool succeeded);
    bool isDriven(const QString &portName) const;
    QSharedPointer<RadioAdapterConfig> registerPort(const QString &portName) const;
    void startAdapter(const QSharedPointer<RadioAdapterConfig> &config);

    QList<SerialAdapter *> m_adapters; // in the order in which they were started
    QList<QSharedPointer<DataForwarder>> m_forwarders;
    QTimer *m_scanTimer;
    bool m_areForwardersDue = false;
    bool m_isPutOff = false;
};
