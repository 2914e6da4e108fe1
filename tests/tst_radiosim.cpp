#include "tools/radiosim/RadioScript.h"
#include "tools/radiosim/SimulatedRadio.h"
#include "tools/radiosim/TrafficGenerator.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSerialPort>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

const QString radiosim = QStringLiteral(QUILLON_BIN_DIR "/quillon-radiosim");

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
    void traffic();
    void scriptErrors_data();
    void scriptErrors();
    void script();
    void badInput_data();
    void badInput();
    void program();
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
    QVERIFY(kept.size() > 256 * 1024);
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

void TestRadiosim::traffic()
{
    TrafficGenerator traffic;
    QByteArrayList lines;
    connect(&traffic, &TrafficGenerator::lineReady, &traffic, [&](const QByteArray &line) {
        lines.append(line);
        if (lines.size() == 100)
            traffic.stop();
    });
    traffic.start(800); // more than one for each tick of its timer
    QElapsedTimer clock;
    clock.start();
    QTRY_COMPARE(lines.size(), 100);
    QVERIFY2(clock.elapsed() >= 115 && clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
    QTest::qWait(20);
    for (int i = 0; i < 100; ++i)
        QCOMPARE(TrafficGenerator::numberIn("radio;" + lines.value(i) + ";"), i + 1);
    QCOMPARE(lines.size(), 100);
    for (const char *kind :
        {"RXVCALL,", "RXSTAT,", "TXT,\"", "GPS,\"", "RXCODE,", "BATVST,L1,", "RFPWRST,ON,"})
        QVERIFY2(lines.join('\n').contains(kind), kind);
    QCOMPARE(TrafficGenerator::numberIn(TrafficGenerator::line(12345678)), 12345678);
    QCOMPARE(TrafficGenerator::numberIn("*NTF,INFO,ESN,28940001,N12"), -1);
}

void TestRadiosim::scriptErrors_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("error");
    QTest::newRow("no number") << QByteArray("# 1\n\n10 A\nsoon B") << "file:4: 'soon' is not a delay";
    QTest::newRow("below zero") << QByteArray("-1 A") << "file:1: '-1' is not a delay";
    QTest::newRow("no text") << QByteArray("10 \r\n") << "file:1: no text";
    QTest::newRow("unknown escape") << QByteArray("10 A\\q") << "file:1: unknown escape '\\q'";
    QTest::newRow("half an escape") << QByteArray("10 A\\x4") << "file:1: unknown escape '\\x4'";
    QTest::newRow("no hexadecimal") << QByteArray("10 A\\x+4") << "file:1: unknown escape '\\x+4'";
    QTest::newRow("lone backslash") << QByteArray("10 !\\") << "file:1: unknown escape '\\'";
}

void TestRadiosim::scriptErrors()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, error);
    RadioScript script;
    QVERIFY(!script.parse(content, QStringLiteral("file")));
    QVERIFY2(script.errorString().startsWith(error), qPrintable(script.errorString()));
    QVERIFY(script.steps().isEmpty());
}

void TestRadiosim::script()
{
    SimulatedRadio radio({});
    QVERIFY(radio.plugIn());
    const auto port = openPort(radio, 19200);
    RadioScript script;
    QVERIFY(script.parse(
        "  # what it hears\n\n0 \\x41 b\\\\ # no comment\r\n100\t!\\x02half\n 100  !\\0\\t\\n\\r\\x03\n",
        QStringLiteral("file")));
    connect(&script, &RadioScript::due, &radio, &SimulatedRadio::send);
    script.start();
    const QByteArray firstHalf = frame("A b\\ # no comment") + "\x02half";
    QCOMPARE(readLike(firstHalf, *port), firstHalf);
    const QByteArray secondHalf("\0\t\n\r\x03", 5);
    QCOMPARE(readLike(secondHalf, *port), secondHalf);
}

void TestRadiosim::badInput_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("error");
    const auto row = [](const char *arguments, const char *error) {
        QTest::newRow(arguments) << QString::fromLatin1(arguments) << QString::fromLatin1(error);
    };
    row("--baud fast", "--baud: 'fast' is none of 300,");
    row("--baud 19201", "--baud: '19201' is none of 300,");
    row("--count 0", "--count: '0' is not a number from 1");
    row("--esn 28A", "--esn: '28A' is not a number");
    row("--traffic nan", "--traffic: 'nan' is not a number above 0");
    row("--script /no/such", "/no/such: No such file");
    row("--link /no/such", "link /no/such: No such file");
    row("--link /dev/null", "/dev/null exists and is not a symbolic link");
    row("--fast", "Unknown option 'fast'");
    row("radio", "unexpected argument 'radio'");
}

void TestRadiosim::badInput()
{
    QFETCH(QString, arguments);
    QFETCH(QString, error);
    QProcess process;
    process.start(radiosim, arguments.split(QLatin1Char(' ')));
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 2);
    const QString printed = QString::fromUtf8(process.readAllStandardError());
    QVERIFY2(printed.startsWith(QStringLiteral("quillon-radiosim: ") + error), qPrintable(printed));
    QCOMPARE(printed.count(QLatin1Char('\n')), 1);
}

void TestRadiosim::program()
{
    const QTemporaryDir folder;
    const auto link = [&folder](int radio) { return folder.filePath(QStringLiteral("r%1").arg(radio)); };
    QProcess process;
    QString printed;
    const auto prints = [&](const QString &text) {
        return QTest::qWaitFor([&] {
            printed += QString::fromUtf8(process.readAllStandardOutput());
            return printed.contains(text);
        });
    };
    const auto command = [&](const QByteArray &line, const char *reply) {
        printed.clear();
        process.write(line + '\n');
        return prints(QString::fromLatin1(reply));
    };
    process.start(radiosim,
        {QStringLiteral("--control"), QStringLiteral("--count"), QStringLiteral("2"),
            QStringLiteral("--link"), folder.filePath(QStringLiteral("r%1")), QStringLiteral("--esn"),
            QStringLiteral("0099")});
    QVERIFY(prints(QStringLiteral("ESN 0100\n")));
    QVERIFY(printed.contains(QStringLiteral("radio 2: %1 (link %2), 19200 bit/s, ESN 0100\n")
                                 .arg(QFile::symLinkTarget(link(2)), link(2))));
    QVERIFY(command("baud 4800 2", "radio 2: 4800 bit/s\nok\n"));
    QSerialPort port(QFile::symLinkTarget(link(2)));
    port.setBaudRate(4800);
    QVERIFY(port.open(QIODevice::ReadWrite));
    port.write(frame("*SET,UI,TEXT,HI"));
    QVERIFY(prints(QStringLiteral("radio 2: received *SET,UI,TEXT,HI\nradio 2: display [HI]\n")));
    QVERIFY(command("hear:2 call", "ok\n") && command("raw:2 \\x02\\0", "ok\n"));
    const QByteArray heard = frame("call") + QByteArray("\x02\0", 2);
    QCOMPARE(readLike(heard, port), heard);
    QVERIFY(command("hear call", "error: lost at radio 1\n"));
    QVERIFY(command("traffic 200 2", "radio 2: 200 lines/s after line 0\nok\n"));
    const QByteArray first = frame("call") + frame(TrafficGenerator::line(1));
    QVERIFY(readLike(first, port).startsWith(first));
    QVERIFY(command("traffic 0 2", "radio 2: 0 lines/s after line "));
    QVERIFY(command("traffic fast", "error: no rate 'fast'\n"));
    QVERIFY(command("unplug 1", "radio 1: unplugged\nok\n"));
    QVERIFY(!QFileInfo(link(1)).isSymLink() && QFileInfo(link(2)).isSymLink());
    QVERIFY(command("plug", "ok\n") && QFileInfo(link(1)).isSymLink());
    QVERIFY(command("baud 1", "error: unknown speed '1'\n") && command("plug 3", "error: no radio '3'\n"));
    QVERIFY(command("jump", "error: unknown command 'jump'\n"));
    process.terminate();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 0);
    QVERIFY(!QFileInfo(link(1)).isSymLink() && !QFileInfo(link(2)).isSymLink());
}

QTEST_GUILESS_MAIN(TestRadiosim)
#include "tst_radiosim.moc"
