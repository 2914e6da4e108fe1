#include "serial/MyQSerialPort.h"
#include "support/LogCapture.h"

#include <QTest>

class TestSerialPort : public QObject
{
    Q_OBJECT

private slots:
    void walksTheCandidateRates();
    void fixedRateIsTheOnlyOne();
    void onlyItsOwnSignalIsLogged();
};

void TestSerialPort::walksTheCandidateRates()
{
    MyQSerialPort port;
    QCOMPARE(port.baudRate(), 19200);
    for (const qint32 rate : {9600, 4800, 2400, 1200, 38400}) {
        QVERIFY(port.tryNextBaudRate());
        QCOMPARE(port.baudRate(), rate);
    }
    QVERIFY(!port.tryNextBaudRate());
    QVERIFY(!port.tryNextBaudRate());
    QCOMPARE(port.baudRate(), 38400);
    port.resetBaudRates();
    QCOMPARE(port.baudRate(), 19200);
}

void TestSerialPort::fixedRateIsTheOnlyOne()
{
    MyQSerialPort port;
    port.setFixedBaudRate(4800);
    QVERIFY(!port.tryNextBaudRate());
    QCOMPARE(port.baudRate(), 4800);
}

void TestSerialPort::onlyItsOwnSignalIsLogged()
{
    MyQSerialPort port;
    LogCapture log;
    QSerialPort &base = port;
    emit base.errorOccurred(QSerialPort::ResourceError);
    QVERIFY(log.texts().isEmpty());
    emit port.errorOccurred(QSerialPort::ResourceError);
    QCOMPARE(
        log.texts(QtInfoMsg), QStringList(QStringLiteral("error occurred :  QSerialPort::ResourceError")));
}

QTEST_GUILESS_MAIN(TestSerialPort)
#include "tst_serialport.moc"
