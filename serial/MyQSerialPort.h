#pragma once

#include <QList>
#include <QSerialPort>

/// The serial port of one radio, with the list of speeds to try while the radio's own speed is not known.
/// The first candidate is always the speed that is set on the port. Speeds are in bit/s.
class MyQSerialPort : public QSerialPort
{
    Q_OBJECT

public:
    MyQSerialPort();

    /// Puts all default candidates back and sets the first of them, 19200 bit/s.
    void resetBaudRates();
    /// Makes `rate` the only candidate and sets it.
    void setFixedBaudRate(qint32 rate);
    /// Drops the current speed and opens the port again at the next one; false when there is none left, and
    /// the port then stays as it is. Whether the port could be opened again is not reported.
    bool tryNextBaudRate();

signals:
    /// Declared again on purpose: see the constructor.
    void errorOccurred(QSerialPort::SerialPortError error);

private slots:
    void errorOccurred_slot(QSerialPort::SerialPortError error);

private:
    QList<qint32> m_candidateBaudRates;
};
