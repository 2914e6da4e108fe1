// A session of one radio: how its row is set, how far it is identified, and then bytes in reads of any length
// between ticks of the clock. The adapter is the real one, on a pseudo-terminal that stays open.

#include "config/ConfigDatabase.h"
#include "fuzz/FuzzSupport.h"
#include "protocol/ActionCommands.h"
#include "serial/SerialAdapter.h"
#include "tools/radiosim/PseudoTerminal.h"

#include <QSqlQuery>
#include <QThread>

#include <fuzzer/FuzzedDataProvider.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

const char *const answers[] = {"\x02*NTF,INFO,ESN,28940001\x03", "\x02*NTF,INFO,COMMENT,one\x03",
    "\x02*NTF,INFO,COMMENT,two\x03", "\x02*NTF,INFO,DREV,1.02,X\x03", "\x02*NTF,INFO,REV,1.0,$AB12,SIM\x03",
    "\x02*NTF,INFO,FREV,NG\x03"};

const char *const invalidDataTexts[] = {"false", "true", "TRUE", "undefined"};

class Rig
{
public:
    Rig()
    {
        m_store = ConfigDatabase::getInstance(m_environment.file(QStringLiteral("q.sqlite")));
        require(m_terminal.open(), "a pseudo-terminal");
        m_row = QSharedPointer<RadioAdapterConfig>::create();
        m_row->port = m_terminal.slavePath();
        m_store->addDiscoveredAdapter(m_row);
        // Held open, so that the terminal outlives each adapter and tells how much is still to be read.
        m_slave = ::open(m_terminal.slavePath().toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        require(m_slave >= 0, "the other end of the pseudo-terminal");
    }

    void play(FuzzedDataProvider &input);

private:
    void setInvalidData(const char *value);
    void deliver(const QByteArray &bytes);
    void act(SerialAdapter &adapter, FuzzedDataProvider &input);
    void checkResponse(const QSharedPointer<IcomCommandResponse> &response);

    const FuzzEnvironment m_environment;
    ConfigDatabase *m_store;
    PseudoTerminal m_terminal;
    QSharedPointer<RadioAdapterConfig> m_row;
    int m_slave = -1;
    const char *m_invalidData = nullptr;
    QList<QSharedPointer<IcomCommandResponse>> m_held; // as an output holds what it could not send yet
};

void Rig::setInvalidData(const char *value)
{
    if (value == m_invalidData)
        return;
    m_invalidData = value;
    m_store->openDatabase();
    QSqlQuery().exec(
        QStringLiteral("UPDATE system_configuration SET value='%1' WHERE name='forward_invalid_data'")
            .arg(QLatin1String(value)));
    m_store->closeDatabase();
}

/// One read of the adapter: the bytes have crossed the terminal before the event loop looks.
void Rig::deliver(const QByteArray &bytes)
{
    const int written = m_terminal.write(bytes);
    int waiting = 0;
    for (int tries = 0; tries < 1000 && ::ioctl(m_slave, FIONREAD, &waiting) == 0 && waiting < written;
         ++tries)
        QThread::yieldCurrentThread();
    QCoreApplication::processEvents();
    ::tcflush(m_slave, TCIFLUSH); // an adapter that has stopped reads no more
    m_terminal.read(); // what it was sent is of no interest here
}

void Rig::checkResponse(const QSharedPointer<IcomCommandResponse> &response)
{
    const QByteArray frame = response->data();
    require(!frame.contains('\x02') && !frame.contains('\x03'), "a frame holds no delimiter");
    require(response->timestamp().isValid(), "an output sees a time stamp");
    m_held.append(response);
}

void Rig::act(SerialAdapter &adapter, FuzzedDataProvider &input)
{
    switch (input.ConsumeIntegralInRange(0, 15)) {
    case 0:
        if (adapter.config()->status != RadioAdapterConfig::Stopped)
            QMetaObject::invokeMethod(&adapter, "timer_event");
        return;
    case 1:
        adapter.enqueueCommand(QSharedPointer<DisplayTextCommand>::create(
            nullptr, QString::fromStdString(input.ConsumeRandomLengthString(30)), 5000));
        return;
    case 2:
        QMetaObject::invokeMethod(
            &adapter, "handleDelayedCommand", Q_ARG(int, input.ConsumeIntegral<quint8>()));
        return;
    case 3: // a line that does not end
        for (int reads = input.ConsumeIntegralInRange(1, 20); reads > 0; --reads)
            deliver(QByteArray(4000, char(input.ConsumeIntegral<quint8>())));
        return;
    case 4:
        adapter.stop();
        return;
    default:
        deliver(QByteArray::fromStdString(input.ConsumeRandomLengthString(2000)));
    }
}

void Rig::play(FuzzedDataProvider &input)
{
    setInvalidData(input.PickValueInArray(invalidDataTexts));
    m_row->tx_enabled = input.ConsumeBool();
    m_row->autobaud = input.ConsumeBool();
    m_row->baudrate = input.ConsumeIntegral<qint16>();
    m_row->status = RadioAdapterConfig::Idle;
    {
        SerialAdapter adapter;
        int stops = 0;
        QObject::connect(&adapter, &SerialAdapter::adapterStopped, [&] { ++stops; });
        QObject::connect(&adapter, &SerialAdapter::dataReceived,
            [this](const QSharedPointer<IcomCommandResponse> &response) { checkResponse(response); });
        QObject::connect(&adapter, &SerialAdapter::dataSent,
            [](const QSharedPointer<IcomCommand> &command) { command->commandText(); });
        adapter.start(m_row);
        for (int state = input.ConsumeIntegralInRange(0, 6), i = 0; i < state; ++i) {
            if (adapter.config()->status != RadioAdapterConfig::Stopped)
                QMetaObject::invokeMethod(&adapter, "timer_event");
            deliver(answers[i]);
        }
        while (input.remaining_bytes() > 0)
            act(adapter, input);
        require(stops == (m_row->status == RadioAdapterConfig::Stopped ? 1 : 0), "an adapter stops once");
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    for (const auto &response : qAsConst(m_held))
        require(!response->parent(), "what outputs hold outlives its adapter");
    m_held.clear();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Rig rig;
    FuzzedDataProvider input(data, size);
    rig.play(input);
    return 0;
}
