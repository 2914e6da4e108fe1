#include "serial/MyQSerialPort.h"

#include <QDebug>

#include <iterator>

namespace {

/// In the order in which they are tried.
constexpr qint32 defaultBaudRates[] = {19200, 9600, 4800, 2400, 1200, 38400};

} // namespace

MyQSerialPort::MyQSerialPort()
{
    resetBaudRates();
    // By name, so that it binds to the signal of this class, which nothing emits, and not to the base
    // class's: the port's errors are the adapter's business, on purpose.
    connect(this, SIGNAL(errorOccurred(QSerialPort::SerialPortError)), this,
        SLOT(errorOccurred_slot(QSerialPort::SerialPortError)));
}

void MyQSerialPort::resetBaudRates()
{
    m_candidateBaudRates = QList<qint32>(std::begin(defaultBaudRates), std::end(defaultBaudRates));
    setBaudRate(m_candidateBaudRates.first());
}

void MyQSerialPort::setFixedBaudRate(qint32 rate)
{
    m_candidateBaudRates = {rate};
    setBaudRate(rate);
}

bool MyQSerialPort::tryNextBaudRate()
{
    if (!m_candidateBaudRates.isEmpty())
        m_candidateBaudRates.removeFirst();
    if (m_candidateBaudRates.isEmpty())
        return false;
    if (isOpen()) {
        flush();
        if (!isOpen())
            return false; // the flush has failed, and whoever heard of it has given the port up
        close();
    }
    setBaudRate(m_candidateBaudRates.first());
    open(QIODevice::ReadWrite);
    return true;
}

void MyQSerialPort::errorOccurred_slot(QSerialPort::SerialPortError error)
{
    qInfo() << "error occurred : " << error;
}
