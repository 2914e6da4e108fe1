#include "support/TestDatabase.h"
#include "tools/quillonctl/RecordLine.h"

#include <QtNetwork>

#include <csignal>
#include <memory>

namespace {

/// A frame as the daemon tells it.
QByteArray frame(const QString &name, const QString &kind, const QJsonObject &fields, const QString &text)
{
    const QJsonObject record{{"record"_s, "frame"_s}, {"name"_s, name}, {"kind"_s, kind},
        {"fields"_s, fields}, {"text"_s, text}, {"time"_s, "2026-11-21T17:52:01.123Z"_s}};
    return QJsonDocument(record).toJson(QJsonDocument::Compact) + '\n';
}

const QByteArray gateway =
    R"({"record":"gateway","version":"1.2","gateway":"van","time":"2026-11-21T17:00:00.000Z"})"
    "\n";
const QByteArray lost = "{\"record\":\"lost\",\"count\":17}\n";

} // namespace

class TestWatch : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void linesAreAlignedAndHarmless();
    void wordsForEveryKind();
    void passesOnWhatIsWanted();
    void waitsAndJoinsAgain();
    void endsQuietly();
    void refusals();

private:
    /// Starts `quillonctl watch` in a shell; $W stands for it.
    void start(const QString &shell);
    void serve(const QByteArray &records);
    QByteArray out() { return m_out += m_shell->readAllStandardOutput(); }
    QByteArray error() { return m_error += m_shell->readAllStandardError(); }
    int exitCode()
    {
        m_shell->waitForFinished();
        out();
        error();
        return m_shell->exitStatus() == QProcess::NormalExit ? m_shell->exitCode() : -1;
    }

    TestDatabase m_file;
    const QString m_path = m_file.file("stream"_s);
    std::unique_ptr<QLocalServer> m_server;
    std::unique_ptr<QProcess> m_shell;
    QLocalSocket *m_client = nullptr;
    QByteArray m_out;
    QByteArray m_error;
};

void TestWatch::init()
{
    m_shell.reset();
    m_server = std::make_unique<QLocalServer>();
    QVERIFY(m_server->listen(m_path));
    m_out.clear();
    m_error.clear();
}

void TestWatch::start(const QString &shell)
{
    m_shell = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TZ"_s, "UTC-2"_s); // two hours ahead
    environment.insert("W"_s, QUILLON_BIN_DIR "/quillonctl watch --socket "_s + m_path);
    m_shell->setProcessEnvironment(environment);
    m_shell->start("sh"_s, {"-c"_s, shell});
}

void TestWatch::serve(const QByteArray &records)
{
    QVERIFY(m_server->hasPendingConnections() || m_server->waitForNewConnection(10000));
    m_client = m_server->nextPendingConnection();
    m_client->write(records);
    QVERIFY(m_client->waitForBytesWritten());
}

void TestWatch::linesAreAlignedAndHarmless()
{
    const QJsonObject caller{{"callerId"_s, "7"_s}, {"field1"_s, "x"_s}, {"message"_s, ""_s}};
    start("exec $W --count 6"_s);
    serve(gateway + frame("Van 1"_s, "gps"_s, caller, "text"_s)
        + frame("É\u0301quipe 日本"_s, "frontFirmware"_s, {}, "\033[31m\u009b1m\u202e\u2028a\u0007"_s)
        + frame("a name of more than sixteen"_s, "new\033kind"_s, {}, "t"_s)
        + R"({"record":"radio","name":"Van\u001b 1","esn":"28940002","model":"ICF-4162","band":"UHF",)"
          R"("port":"ttyUSB0","state":"stopped","time":"2026-11-21T23:30:00.000Z"})"
          "\n"
        + lost);
    QCOMPARE(exitCode(), 0);
    QCOMPARE(error(), QByteArray());
    const QStringList lines = QString::fromUtf8(m_out).split(u'\n');
    const QStringList expected{"19:00:00  van               gateway  Quillon 1.2"_s,
        "19:52:01  Van 1             heard    position              caller 7  text"_s,
        "19:52:01  É\u0301quipe 日本       heard    front panel firmware  \ufffd[31m\ufffd1m\ufffd\ufffda\ufffd"_s,
        "19:52:01  a name of more …  heard    new\ufffdkind              t"_s,
        "01:30:00  Van\ufffd 1            radio    given up              ESN 28940002, ICF-4162, UHF, ttyUSB0"_s};
    QCOMPARE(lines.mid(0, 5), expected);
    QVERIFY2(lines.at(5).endsWith("17 records were lost: this reader was too slow"_s), m_out);

    const RecordLine coloured(true);
    const QString line = coloured.format(QJsonDocument::fromJson(lost).object());
    QVERIFY(line.startsWith("\033[31m"_s) && line.endsWith("\033[0m"_s));
    QCOMPARE(
        harmlessJson("{\"a\":\"é\xc2\x9b\x7f\xe2\x80\xae\"}"), QByteArray(R"({"a":"é\u009b\u007f\u202e"})"));
}

void TestWatch::wordsForEveryKind()
{
    QFile file(QUILLON_DOCS_DIR "/../tools/quillonctl/words.json"_s);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QJsonObject words = QJsonDocument::fromJson(file.readAll()).object();
    const QJsonObject fields = words.value("fields"_s).toObject();
    const QJsonObject kinds = words.value("kinds"_s).toObject();
    QCOMPARE(kinds.size(), 15);
    for (const auto &kind : kinds) {
        for (const auto &field : kind.toObject().value("fields"_s).toArray())
            QVERIFY2(fields.contains(field.toString()), qPrintable(field.toString()));
    }
    for (const auto &section : words) {
        for (const auto &entry : section.toObject()) {
            for (const QString &language : {"en"_s, "fr"_s})
                QVERIFY(!entry.toObject().value(language).toString().isEmpty());
        }
    }
}

void TestWatch::passesOnWhatIsWanted()
{
    const QByteArray wanted = frame("a"_s, "gps"_s, {}, "\u009b kept as it is"_s);
    const QByteArray call = frame("a"_s, "dpmrCall"_s, {}, {});
    const QByteArray records = gateway + wanted + frame("b"_s, "gps"_s, {}, {}) + call + lost;
    start("exec $W --json --radio a --kind gps --count 2"_s);
    serve(records);
    QCOMPARE(exitCode(), 0);
    QCOMPARE(m_out, wanted + lost);

    init();
    start("exec $W --json --kind dpmrCall,gps --count 3"_s);
    serve(records);
    QCOMPARE(exitCode(), 0);
    QCOMPARE(m_out, wanted + frame("b"_s, "gps"_s, {}, {}) + call);
}

void TestWatch::waitsAndJoinsAgain()
{
    m_server->close();
    start("exec $W --json"_s);
    QTRY_VERIFY(error().contains("waiting for the daemon"));
    QVERIFY(m_server->listen(m_path));
    serve(gateway + "{\"record\":\"fra"); // the daemon ends in the middle of a record
    QTRY_COMPARE(out(), gateway);
    QTRY_VERIFY(error().endsWith("joined\n"));
    delete m_client;
    QTRY_VERIFY(error().endsWith("the stream has ended; waiting to join again\n"));
    serve(lost);
    QTRY_COMPARE(out(), gateway + lost);
    QTRY_COMPARE(error().count("joined"), 2);
    ::kill(pid_t(m_shell->processId()), SIGINT);
    QCOMPARE(exitCode(), 0);
    QCOMPARE(m_error.count('\n'), 4);
}

void TestWatch::endsQuietly()
{
    start("{ $W; echo $? >&2; } | head -n 1"_s); // no further record comes, which would fail to be written
    serve(gateway);
    QCOMPARE(exitCode(), 0);
    QVERIFY(m_out.contains("Quillon 1.2"));
    QCOMPARE(m_error, QByteArray("0\n"));

    init();
    start("$W >/dev/full"_s);
    serve(gateway);
    QCOMPARE(exitCode(), 2);
    QVERIFY(m_error.contains("No space left"));
}

void TestWatch::refusals()
{
    start("exec $W"_s);
    serve("HTTP/1.1 400 Bad Request\r\n");
    QCOMPARE(exitCode(), 2);
    QVERIFY(m_error.contains("is no stream of records") && m_out.isEmpty());
}

QTEST_GUILESS_MAIN(TestWatch)
#include "tst_watch.moc"
