#include "tools/radiosim/SimulatedRadio.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

QByteArray frame(const QByteArray &line)
{
    return '\x02' + line + '\x03';
}

std::unique_ptr<QSerialPort> openPort(const SimulatedRadio &radio, int baud)
{
    auto port = std::make_unique<QSerialPort>(radio.portName());
    port->setBaudRate(baud);
    return port->open(QIODevice::ReadWrite) ? std::move(port) : nullptr;
}

const QByteArray esnAnswer = frame("*NTF,INFO,ESN,28940001");

/// Waits for as many bytes as `expected` has, and returns all that came.
QByteArray readLike(const QByteArray &expected, QSerialPort &port)
{
    QByteArray bytes;
    [[maybe_unused]] const bool enough = QTest::qWaitFor([&] {
        bytes += port.readAll();
        return bytes.size() >= expected.size();
    });
    return bytes;
}

} // namespace

class TestRadiosim : public QObject
{
    Q_OBJECT

private slots:
    void answers_data();
    void answers();
    void display();
    void otherSpeed();
    void closeAndReopen();
    void unplug();
    void link();
    void slowReader();
    void lineRate();
};

void TestRadiosim::answers_data()
{
    QTest::addColumn<QByteArray>("query");
    QTest::addColumn<QByteArray>("answer");
    const auto row = [](const char *query, const char *answer) {
        QTest::newRow(query) << QByteArray(query) << (*answer ? frame(answer) : QByteArray());
    };
    row("*GET,INFO,ESN", "*NTF,INFO,ESN,28940001");
    row("*GET,INFO,COMMENT,1", "*NTF,INFO,COMMENT,caf\xc3\xa9");
    row("*GET,INFO,COMMENT,2", "*NTF,INFO,COMMENT,");
    row("*GET,INFO,DREV", "*NTF,INFO,DREV,NG");
    row("*GET,INFO,REV", "*NTF,INFO,REV,1.0,$AB12,SIM");
    row("*GET,INFO,FREV", "*NTF,INFO,FREV,1.00,FRONT");
    row("*SET,UI,TEXT,HELLO", "");
    row("*GET,INFO", "");
}

void TestRadiosim::answers()
{
    QFETCH(QByteArray, query);
    QFETCH(QByteArray, answer);
    for (const bool mute : {false, true}) {
        RadioSettings settings;
        settings.comment1 = QStringLiteral("café");
        settings.dsp = QStringLiteral("NG");
        settings.answers = !mute;
        SimulatedRadio radio(settings);
        QVERIFY(radio.plugIn());
        const auto port = openPort(radio, 19200);
        QVERIFY(port);
        port->write(frame(query).left(4)); // a frame in two pieces, after a piece of another
        QTest::qWait(1);
        port->write(frame(query).mid(4) + "\x02*GET,INFO,");
        QTRY_COMPARE(radio.received(), QByteArrayList{query});
        QVERIFY(radio.hear("end"));
        const QByteArray expected = (mute ? QByteArray() : answer) + frame("end");
        QCOMPARE(readLike(expected, *port), expected);
    }
}

void TestRadiosim::display()
{
    SimulatedRadio radio({});
    QVERIFY(radio.plugIn());
    const auto port = openPort(radio, 19200);
    QSignalSpy displayed(&radio, &SimulatedRadio::displayChanged);
    port->write(frame("*SET,UI,TEXT,d\xc3\xa9j\xc3\xa0, vu") + frame("*SET,UI,TEXT,"));
    QTRY_COMPARE(displayed.count(), 2);
    QCOMPARE(displayed.at(0).at(0).toString(), QStringLiteral("déjà, vu"));
    QCOMPARE(radio.displayText(), QString());
}

void TestRadiosim::otherSpeed()
{
    RadioSettings settings;
    settings.baud = 9600;
    SimulatedRadio radio(settings);
    QVERIFY(radio.plugIn());
    auto port = openPort(radio, 19200);
    QCOMPARE(radio.lineSpeed(), 19200);
    port->write(frame("*GET,INFO,ESN"));
    QTRY_COMPARE(port->bytesAvailable(), 3);
    QVERIFY(radio.hear("*NTF,5T,RXCODE,1,2,3"));
    QTRY_COMPARE(port->bytesAvailable(), 3 + frame("*NTF,5T,RXCODE,1,2,3").size());
    const QByteArray heard = port->readAll();
    QVERIFY(!heard.contains('\x02') && !heard.contains('\x03') && !heard.contains("NTF"));
    QCOMPARE(radio.received(), QByteArrayList());

    QVERIFY(port->setBaudRate(9600));
    port->write(frame("*GET,INFO,ESN"));
    QCOMPARE(readLike(esnAnswer, *port), esnAnswer);

    radio.setBaud(4800);
    QVERIFY(radio.hear("again"));
    QTRY_COMPARE(port->bytesAvailable(), 7);
    QVERIFY(port->readAll() != frame("again"));
}

void TestRadiosim::closeAndReopen()
{
    SimulatedRadio radio({});
    QVERIFY(radio.plugIn());
    QVERIFY(!radio.hear("nobody has opened it yet"));
    for (int round = 0; round < 3; ++round) {
        auto port = openPort(radio, 19200);
        QVERIFY(radio.hear("first"));
        QCOMPARE(readLike(frame("first"), *port), frame("first"));
        QVERIFY(radio.hear("not read before the end"));
        port->close();
        QVERIFY(!radio.hear("lost"));
        QTest::qWait(60 * (round % 2)); // with and without the time to notice
        port = openPort(radio, 19200);
        port->write(frame("*GET,INFO,ESN"));
        QCOMPARE(readLike(esnAnswer, *port), esnAnswer);
    }
}

void TestRadiosim::unplug()
{
    SimulatedRadio radio({});
    QVERIFY(radio.plugIn());
    const auto port = openPort(radio, 19200);
    qRegisterMetaType<QSerialPort::SerialPortError>();
    QSignalSpy errors(port.get(), &QSerialPort::errorOccurred);
    connect(&radio, &SimulatedRadio::lineReceived, &radio, &SimulatedRadio::unplug);
    port->write(frame("*GET,INFO,ESN") + frame("*GET,INFO,REV"));
    QTRY_VERIFY(!errors.isEmpty());
    QCOMPARE(radio.received(), QByteArrayList{"*GET,INFO,ESN"});
    QVERIFY(!radio.isPlugged() && !radio.hear("nothing") && radio.slavePath().isEmpty());
    port->close();

    QVERIFY(radio.plugIn());
    const auto again = openPort(radio, 19200);
    QVERIFY(radio.hear("back"));
    QCOMPARE(readLike(frame("back"), *again), frame("back"));
}

void TestRadiosim::link()
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("radio"));
    const auto target = [&path] { return QFile::symLinkTarget(path); };
    QVERIFY(QFile::link(QStringLiteral("/nowhere"), path)); // left behind by another radio
    {
        SimulatedRadio radio({});
        QVERIFY(radio.setLink(path) && radio.plugIn());
        QCOMPARE(target(), radio.slavePath());
        radio.unplug();
        QVERIFY(!QFileInfo(path).isSymLink());
        QVERIFY(radio.plugIn());
        QCOMPARE(target(), radio.slavePath());

        SimulatedRadio other({});
        QVERIFY(other.plugIn() && other.setLink(path));
        radio.unplug();
        QCOMPARE(target(), other.slavePath());
    }
    QVERIFY(!QFileInfo(path).isSymLink());

    SimulatedRadio radio({});
    QVERIFY(!radio.setLink(folder.path()));
    QVERIFY2(radio.errorString().contains(QStringLiteral("is not a symbolic link")),
        qPrintable(radio.errorString()));
    QVERIFY(radio.setLink(path + QStringLiteral("/below")) && !radio.plugIn() && !radio.isPlugged());
    QVERIFY(radio.errorString().contains(QStringLiteral("No such file")));
}

void TestRadiosim::slowReader()
{
    SimulatedRadio radio({});
    QVERIFY(radio.plugIn());
    const auto port = openPort(radio, 19200);
    port->setReadBufferSize(1); // the port stops reading, the system's buffer fills
    QByteArray kept;
    for (int number = 0; radio.hear(QByteArray::number(number)); ++number)
        kept += frame(QByteArray::number(number));
    QVERIFY(kept.size() > 1024 * 1024);
    port->setReadBufferSize(0);
    QVERIFY(readLike(kept, *port) == kept);
    QVERIFY(radio.hear("room again"));
}

void TestRadiosim::lineRate()
{
    RadioSettings settings;
    settings.lineRate = true;
    settings.baud = 9600;
    SimulatedRadio radio(settings);
    QVERIFY(radio.plugIn());
    const auto port = openPort(radio, 9600);
    QElapsedTimer clock;
    clock.start();
    const QByteArray line(478, 'x');
    QVERIFY(radio.hear(line));
    QTRY_COMPARE(port->bytesAvailable(), 480);
    QVERIFY2(clock.elapsed() >= 490, qPrintable(QString::number(clock.elapsed())));
    QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
}

QTEST_GUILESS_MAIN(TestRadiosim)
#include "tst_radiosim.moc"
