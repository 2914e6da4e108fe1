#include "support/OpenSsl.h"
#include "support/PluggedRadio.h"
#include "tools/radiosim/RadioScript.h"
#include "tools/radiosim/TrafficGenerator.h"

#include <QSerialPort>

namespace {

const QString radiosim = QUILLON_BIN_DIR "/quillon-radiosim"_s;

QByteArray frame(const QByteArray &line)
{
    return '\x02' + line + '\x03';
}

const QByteArray esnAnswer = frame("*NTF,INFO,ESN,28940001");

/// The other side of a radio's cable.
class Port : public QSerialPort
{
public:
    explicit Port(const QString &name, int baud = 19200) : QSerialPort(name)
    {
        setBaudRate(baud);
        if (!open(ReadWrite))
            qFatal("%s", qPrintable(errorString()));
    }
    /// Waits for as many bytes as `expected` has, and returns all that came.
    QByteArray readLike(const QByteArray &expected)
    {
        QByteArray bytes;
        [[maybe_unused]] const bool enough = QTest::qWaitFor([&] {
            bytes += readAll();
            return bytes.size() >= expected.size();
        });
        return bytes;
    }
};

} // namespace

class TestRadiosim : public QObject
{
    Q_OBJECT

private slots:
    void slowReader();
    void scripts();
    void badInput();
    void program();
};

void TestRadiosim::slowReader()
{
    PluggedRadio radio;
    Port port(radio.portName());
    port.setReadBufferSize(1); // the port stops reading, the system's buffer fills
    QByteArray kept;
    for (int number = 0; radio.hear(QByteArray::number(number)); ++number)
        kept += frame(QByteArray::number(number));
    QVERIFY(kept.size() > 256 * 1024);
    port.setReadBufferSize(0);
    QVERIFY(port.readLike(kept) == kept);
    QVERIFY(radio.hear("not read before the end"));
    port.close();
    QVERIFY(!radio.hear("lost"));
    Port again(radio.portName());
    QVERIFY(radio.deliver(frame("fresh")));
    QCOMPARE(again.readLike(frame("fresh")), frame("fresh"));
}

void TestRadiosim::scripts()
{
    const QPair<QByteArray, QString> mistakes[] = {{"# 1\n\n10 A\nsoon B", "file:4: 'soon' is not a delay"_s},
        {"10 \r\n", "file:1: no text"_s}, {"10 A\\x4", "file:1: unknown escape '\\x4'"_s},
        {"10 !\\", "file:1: unknown escape '\\'"_s}};
    RadioScript script;
    for (const auto &[content, error] : mistakes) {
        QVERIFY(!script.parse(content, "file"_s));
        QVERIFY2(script.errorString().startsWith(error), qPrintable(script.errorString()));
    }

    QVERIFY(script.parse(
        "  # what it hears\n\n0 \\x41 b\\\\ # no comment\r\n100\t!\\x02half\n 100  !\\0\\t\\n\\r\\x03\n",
        "file"_s));
    PluggedRadio radio;
    Port port(radio.portName());
    connect(&script, &RadioScript::due, &radio, &SimulatedRadio::send);
    script.start();
    const QByteArray heard = frame("A b\\ # no comment") + "\x02half" + QByteArray("\0\t\n\r\x03", 5);
    QCOMPARE(port.readLike(heard), heard);
}

void TestRadiosim::badInput()
{
    for (const QString &each : {"--baud 19201: '19201' is none of 300,"_s, "--count 0: '0' is not a number"_s,
             "--esn 28A: '28A' is not a number"_s, "--traffic nan: 'nan' is not a number above 0"_s,
             "--script /no/such: No such file"_s, "--link /no/such: No such file"_s,
             "--link /dev/null exists and is not a symbolic link"_s}) {
        const QString line = radiosim + u' ' + each.section(u' ', 0, 1).remove(u':');
        const QString printed = QString::fromUtf8(runShell(line + " 2>&1 || echo $?"_s));
        QVERIFY2(printed.startsWith("quillon-radiosim: "_s)
                && printed.indexOf("\n2\n"_s) == printed.indexOf(u'\n'),
            qPrintable(printed));
        QVERIFY2(printed.contains(each.section(u' ', 2)), qPrintable(printed));
    }
}

void TestRadiosim::program()
{
    const QTemporaryDir folder;
    const QString first = folder.filePath("r1"_s);
    const QString second = folder.filePath("r2"_s);
    QProcess process;
    QString printed;
    const auto prints = [&](const QString &text) {
        return QTest::qWaitFor(
            [&] { return (printed += QString::fromUtf8(process.readAllStandardOutput())).contains(text); });
    };
    const auto command = [&](const QByteArray &line, const QString &reply) {
        printed.clear();
        process.write(line + '\n');
        return prints(reply);
    };
    process.start(radiosim,
        {"--control"_s, "--count"_s, "2"_s, "--link"_s, folder.filePath("r%1"_s), "--esn"_s, "0099"_s,
            "--comment1"_s, "café"_s, "--line-rate"_s});
    QVERIFY(prints("(link %1), 19200 bit/s, ESN 0100\n"_s.arg(second)));
    QVERIFY(command("baud 4800 2", "radio 2: 4800 bit/s\nok\n"_s));
    Port port(QFile::symLinkTarget(second), 4800);
    port.write(frame("*GET,INFO,COMMENT,1") + frame("*SET,UI,TEXT,d\xc3\xa9j\xc3\xa0, vu"));
    QVERIFY(prints("radio 2: received *SET,UI,TEXT,déjà, vu\nradio 2: display [déjà, vu]\n"_s));
    const QByteArray call(200, 'c');
    QElapsedTimer clock;
    clock.start();
    QVERIFY(command("hear:2 " + call, "ok\n"_s) && command("raw:2 \\x02\\0", "ok\n"_s));
    QVERIFY(command("traffic 200 2", "radio 2: 200 lines/s after line 0\nok\n"_s));
    const QByteArray heard = frame("*NTF,INFO,COMMENT,caf\xc3\xa9") + frame(call) + QByteArray("\x02\0", 2)
        + frame(TrafficGenerator::line(1));
    QVERIFY(port.readLike(heard).startsWith(heard));
    QVERIFY2(clock.elapsed() >= 400 && clock.elapsed() < 3000, "at 480 bytes a second");
    QTest::qWait(300);
    QVERIFY(command("traffic 0 2", "radio 2: 0 lines/s after line "_s));
    const int lines = printed.section("line "_s, 1).section(u'\n', 0, 0).toInt();
    QVERIFY2(lines >= 50 && lines <= clock.elapsed() / 5, qPrintable(printed));
    QVERIFY(command("unplug 1", "radio 1: unplugged\nok\n"_s));
    QVERIFY(!QFileInfo(first).isSymLink() && QFileInfo(second).isSymLink());
    QVERIFY(command("plug", "ok\n"_s) && QFileInfo(first).isSymLink());
    QVERIFY(command("hear call", "error: lost at radio 1\n"_s));
    QVERIFY(command("plug 3", "error: no radio '3'\n"_s) && command("jump", "error: unknown command"_s));
    process.terminate();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 0);
    QVERIFY(!QFileInfo(first).isSymLink() && !QFileInfo(second).isSymLink());
}

QTEST_GUILESS_MAIN(TestRadiosim)
#include "tst_radiosim.moc"
