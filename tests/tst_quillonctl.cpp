#include "support/QuillonctlTest.h"

#include <csignal>

namespace {

const QByteArray password("pass-word-1234");

/// What comes of commands, and these as a shell reads them, between bars.
using Cases = QList<QPair<const char *, const char *>>;

/// The row that a command adds, changes or removes.
const Cases changes{
    {"radio_adapters|2|STATIC|pts/999|999|1|1|0|1|0|0|", "radio add /dev/pts/999"},
    {"radio_adapters|2|STATIC|/run/r1|Van é|0|0|4800|0|0|0|",
        "radio add /run/r1 --name 'Van é' --baud 4800 --listen-only --disabled"},
    {"radio_adapters|1|UART|ttyUSB7|list|1|1|4800|1|1|1|28931",
        "radio set 1 --name list --autobaud --transmit"},
    {"radio_adapters|1|UART|ttyUSB7|n|0|0|4800|0|1|1|28931", "radio disable 1"},
    {"radio_adapters|1|UART|ttyUSB7|n|0|0|4800|1|1|1|28931", "radio remove 1"},
    {"port_blacklist|3|ttyUSB0", "port block /dev/ttyUSB0"}, {"port_blacklist|1|ttyS0", "port unblock ttyS0"},
    {"data_forwarder|3|RAW|||it's; |::1|65535|0|0",
        "forwarder add raw [::1]:65535 --disabled --comment \"it's; \""},
    {"data_forwarder|3|FILE||||/dev/null||1|0", "forwarder add file /dev/null"},
    {"data_forwarder|3|STREAM||||/run/quillon/stream||1|0", "forwarder add stream"},
    {"data_forwarder|3|STREAM||||::1|70|1|0", "forwarder add stream [::1]:70"},
    {"data_forwarder|3|STREAM||||0.0.0.0|70|1|0", "forwarder add stream 0.0.0.0:70 --public"},
    {"data_forwarder|2|Raw|s|c|x|127.0.0.1|70|0|3", "forwarder set 2 --target 127.0.0.1:70"},
    {"data_forwarder|2|Raw|s|c|x|h|1|1|3", "forwarder enable 2"},
    {"data_forwarder|2|Raw|s|c|x|h|1|0|3", "forwarder remove 2"},
    {"data_forwarder|1|GCP|s|top-1||http://localhost:8085||1|0",
        "forwarder set 1 --endpoint http://localhost:8085 --topic top-1"},
    {"data_forwarder|1|GCP|s|t||||1|0", "forwarder set 1 --endpoint default"},
    {"system_configuration|8|outbox_limit|1048576", "config set outbox_limit 1048576"},
    {"system_configuration|3|autokill_pwd|pass-word-1234", "config set autokill_pwd -"},
    {"system_configuration|8|autokill_url|https://h:8443/", "config set autokill_url https://h:8443/"},
    {"pending_actions|2|DISP,it's; DROP --", "say \"it's; DROP --\""},
    {"pending_actions|2|REBOOT", "reboot --yes"}, {"pending_actions|1|RESTART_APP", "pending clear"},
    {"", "port block ttyS0 | restart | config set autokill_enabled false"}, // it is so already
};

/// What the error line of a refused command says.
const Cases refusals{
    {"--", "reboot | --wait 5x status"},
    {" must not ",
        "radio add '' | say ' ' | say 'a\tb' | radio add pts/9 --name 'a|b' | config set autokill_pwd "
        "'a\\b'"},
    {"too long", "say $(printf %0100000d 0)"},
    {"UTF-8", "config set owner_dept - | say $(printf 'caf\\351')"},
    {", not \"",
        "radio add ../etc | radio add pts/999 --baud 4801 | radio set '1;DROP' --name x"
        " | radio enable 2147483648 | forwarder remove -1 | forwarder add raw ::1:9000"},
    {"1 to 65535", "forwarder add raw localhost:0 | forwarder add raw localhost:65536"},
    {" no IPv6 ", "forwarder add raw [1.2.3.4]:9000"},
    {"host name", "forwarder add eraw :9 | forwarder set 1 --endpoint https://999.1.1.1/"},
    {"no serial device", "radio add /etc/passwd"},
    {"already", "radio add ttyUSB7"},
    {"nothing to change", "radio set 1"},
    {"there is no ",
        "radio remove 99 | forwarder enable 99 | config set nothing 1 | check --user nobody-else"},
    {"1 to 1048576",
        "config set outbox_limit 0 | config set outbox_limit 1048577 | config set outbox_limit x"},
    {"there is no outbox", "outbox show 1 | outbox drop 1 --yes"},
    {"is not blocked", "port unblock ttyUSB7"},
    {"does not exist", "forwarder add file /none/log | forwarder add gcp /none --topic abc"},
    {"is a folder", "forwarder add file ."},
    {"--public", "forwarder add stream 10.0.0.1:70 | forwarder add raw h:1 --public"},
    {"nor an IP address", "forwarder add stream localhost:70"},
    {"is no socket", "forwarder add stream quillon.sqlite | forwarder add stream /etc/passwd"},
    {"too long for a socket", "forwarder add stream /$(printf %0108d 0)"},
    {"a kind is one of", "watch --kind gps,nothing"},
    {"kind STREAM is configured", "watch"},
    {"no JSON document", "forwarder add gcp /etc/passwd --topic abc"},
    {"a topic is", "forwarder set 1 --topic 12345"},
    {"an address begins", "config set autokill_url http://h"},
    {"this one is \"https://h//\"", "config set autokill_url https://h//"},
    {"and nothing else",
        "forwarder set 1 --endpoint https://u@h | forwarder set 1 --endpoint https://h/x"
        " | forwarder set 1 --endpoint 'https://h?x' | forwarder set 1 --endpoint https://h:0"},
    {"begins with https://",
        "forwarder set 1 --endpoint HTTP://h | forwarder set 1 --endpoint http://127.h | forwarder set 1 "
        "--endpoint h"},
    {"has no --target", "forwarder set 1 --target h:1"},
    {"kept by the daemon", "config set bdd_release 2.0"},
    {"reach a display", "say disp,"},
};

void addTestRows(const Cases &cases)
{
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<QString>("command");
    for (const auto &[expected, commands] : cases) {
        for (const QString &command : QString::fromUtf8(commands).split(" | "_s))
            QTest::newRow(qPrintable(command)) << QByteArray(expected) << command;
    }
}

} // namespace

class TestQuillonctl : public QuillonctlTest
{
    Q_OBJECT

private slots:
    void changesRows_data() { addTestRows(changes); }
    void changesRows();
    void refusesAndChangesNothing_data() { addTestRows(refusals); }
    void refusesAndChangesNothing();
    void listings();
    void secretsStayHidden();
    void unusableFiles();
    void lockedFile();
    void initMakesTheFileOnce();
};

void TestQuillonctl::changesRows()
{
    QFETCH(QByteArray, expected);
    QFETCH(QString, command);
    const QSet<QString> before = rows();
    QCOMPARE(run(command, password + "\nmore\n"), 0);
    QCOMPARE(m_error, QByteArray());
    QVERIFY(!m_out.isEmpty());
    if (command.startsWith("forwarder"_s) || command.startsWith("config"_s))
        QCOMPARE(
            m_out.contains("next restart"), !command.contains("_limit"_s) && !command.endsWith("false"_s));

    const QSet<QString> after = rows();
    const QSet<QString> differing = after.size() < before.size() ? before - after : after - before;
    QCOMPARE(QStringList(differing.values()).join(u'\n'), QString::fromUtf8(expected));
}

void TestQuillonctl::refusesAndChangesNothing()
{
    QFETCH(QByteArray, expected);
    QFETCH(QString, command);
    QCOMPARE(run(command, "caf\xe9\n"), 2);
    QVERIFY2(
        m_error.startsWith("quillonctl: ") && m_error.count('\n') == 1 && m_error.size() < 1000, m_error);
    QVERIFY2(m_error.contains(expected), m_error);
    QCOMPARE(m_out, QByteArray());
    QVERIFY(fileBytes() == m_filledFile);
}

void TestQuillonctl::listings()
{
    m_file->run("INSERT INTO radio_adapters VALUES (2, '', 'a', 'bad \033[31m\"name', 1, 1, 0, 1, 1, 0, ''),"
                " (3, '', 'b', '', 1, 1, 0, 1, 1, 1, '28931234'), (4, '', 'c', '', 1, 1, 0, 1, 1, 9, ''),"
                " (5, '', 'd', '', 1, 1, 0, 0, 1, 0, '')"_s);
    m_file->run("INSERT INTO data_forwarder VALUES (3, 'raw', '', '', '', 'h', '7', 1, 3),"
                " (4, 'FILE', '', '', '', '/f', '', 1, 77)"_s);
    const QByteArray before = fileBytes();
    const QString listings[][3] = {
        {"radio list"_s, "name"_s, "n/bad \033[31m\"name///"_s},
        {"radio list"_s, "state"_s,
            "listen only/not identified/identified, working/stopped, no answer/disabled"_s},
        {"forwarder list"_s, "state"_s, "not running/disabled (last: working)/working/failed"_s},
        {"port list"_s, "blocked"_s, "true/true"_s},
        {"config list"_s, "value"_s,
            "false/undefined/undefined/undefined/undefined/undefined/false/undefined/1.1"_s},
        {"config get owner_email"_s, "value"_s, "undefined"_s},
        {"pending list"_s, "command"_s, "RESTART_APP"_s},
        {"status"_s, "release"_s, "1.1"_s},
    };
    for (const auto &[command, field, expected] : listings) {
        QCOMPARE(run(command + " --json"_s), 0);
        const QJsonDocument json = QJsonDocument::fromJson(m_out);
        QStringList values;
        for (const auto &row : json.isArray() ? json.array() : QJsonArray{json.object()})
            values.append(row.toObject().value(field).toVariant().toString());
        QCOMPARE(values.join(u'/'), expected);
        QCOMPARE(run(command), 0);
        QVERIFY(!m_out.isEmpty() && !m_out.contains('\033'));
    }
    for (const char *text : {"ttyUSB7", "28931234", "ICF-3162", "VHF", "4800 bit/s", "automatic", "h:7"})
        QVERIFY2(m_out.contains(text), text);
    QVERIFY(fileBytes() == before);

    QProcess process; // redraws until it is interrupted
    process.start(m_program, {"-c"_s, m_file->path(), "status"_s, "--watch"_s});
    QByteArray out;
    QTRY_VERIFY((out += process.readAllStandardOutput()).contains("not running"));
    m_file->run("UPDATE data_forwarder SET context = 'changed' WHERE ids = 1"_s);
    QTRY_VERIFY((out += process.readAllStandardOutput()).contains("changed"));
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished() && process.exitCode() == 0); // that of a crash is the signal's number
}

void TestQuillonctl::secretsStayHidden()
{
    const QJsonObject good = m_credential.document("https://127.0.0.1:1/token"_s);
    const QString secret = m_credential.secret("https://127.0.0.1:1/token"_s);
    m_file->writeFile("key.json"_s, QJsonDocument(good).toJson());
    m_file->setKey("autokill_pwd"_s, QString::fromLatin1(password));
    QCOMPARE(run("forwarder add gcp key.json --topic top-1 --endpoint http://127.0.0.1:1"_s), 0);
    QVERIFY(rows().contains("data_forwarder|3|GCP|%1|top-1||http://127.0.0.1:1||1|0"_s.arg(secret)));
    for (const QString &command :
        {"status"_s, "forwarder list"_s, "config list"_s, "config get autokill_pwd"_s, "check"_s}) {
        for (const QString &format : {""_s, " --json"_s}) {
            run(command + format);
            for (const QByteArray &hidden : {secret.left(40).toLatin1(), password, QByteArray("PRIVATE KEY")})
                QVERIFY2(!(m_out + m_error).contains(hidden), qPrintable(command));
        }
    }
    QCOMPARE(run("config get autokill_pwd --show-secrets"_s), 0);
    QCOMPARE(m_out, password + '\n');

    const QByteArray before = fileBytes();
    const QByteArrayList bad[] = {{"project_id", "", "project_id is missing"},
        {"token_uri", "http://x", "no https address"},
        {"private_key", runShell("openssl genpkey -quiet -algorithm EC -pkeyopt group:P-256"_s),
            "no RSA key"},
        {"private_key", runShell("openssl genpkey -quiet -algorithm RSA -aes128 -pass pass:x"_s),
            "no RSA key"}};
    for (const QByteArrayList &each : bad) {
        QJsonObject document = good;
        document[QString::fromLatin1(each.at(0))] = QString::fromLatin1(each.at(1));
        m_file->writeFile("key.json"_s, QJsonDocument(document).toJson());
        QCOMPARE(run("forwarder set 1 --credentials key.json"_s), 2);
        QVERIFY2(m_error.contains(each.at(2)) && !m_error.contains("PRIVATE KEY"), m_error);
        QVERIFY(fileBytes() == before);
    }
}

void TestQuillonctl::unusableFiles()
{
    const QString name = "other?mode=rwc&%41 é.sqlite"_s;
    const QPair<QByteArray, QByteArray> cases[] = {{{}, "No such file"}, {"", "no Quillon configuration"},
        {QByteArray(5000, 'x'), "no SQLite database"}, {m_filledFile.left(3000), "damaged"}};
    for (const auto &[content, reason] : cases) {
        if (!content.isNull())
            m_file->writeFile(name, content);
        for (const QString &command : {"status"_s, "radio add pts/999"_s, "restart"_s, "check"_s}) {
            QCOMPARE(run(command, {}, m_file->file(name)), 2);
            QVERIFY2(m_error.contains(reason) && m_error.count('\n') == 1 && m_out.isEmpty(), m_error);
            QCOMPARE(m_file->readFile(name), content);
            QCOMPARE(QFile::exists(m_file->file(name)), !content.isNull());
        }
    }
    QCOMPARE(run("status"_s, {}, m_file->folder()), 2);
    QVERIFY(m_error.contains("is no file"));

    m_file->setKey("bdd_release"_s, "0.21.0"_s);
    QCOMPARE(run("forwarder add duos"_s), 2); // the daemon would remove it when it migrates the file
    QVERIFY(m_error.contains("older release"));
}

void TestQuillonctl::lockedFile()
{
    OtherProgram holder(*m_file);
    for (const QString &command : {"status"_s, "check"_s, "radio add pts/999"_s, "restart"_s}) {
        QCOMPARE(run("--wait 0 "_s + command), 2);
        QVERIFY2(m_error.contains("locked by another program"), m_error);
    }
    holder.goOn(1, "COMMIT;");
    QCOMPARE(run("port list"_s), 0); // waits
    QVERIFY(holder.waitForFinished());
}

void TestQuillonctl::initMakesTheFileOnce()
{
    const QString path = m_file->file("new.sqlite"_s);
    QCOMPARE(run("init"_s, {}, path), 0);
    QVERIFY2(m_out.contains("was made") && m_out.contains("Output 1 (GCP) has no credential"), m_out);
    QVERIFY(m_out.contains("/run/quillon/stream"));
    run("check"_s, {}, path);
    QVERIFY2(!m_out.contains("GCP"), m_out); // so it is switched off
    QCOMPARE(run("forwarder list"_s, {}, path), 0);
    QVERIFY2(m_out.contains("STREAM") && m_out.contains("not running"), m_out);
    QCOMPARE(run("init"_s), 0); // a file in use keeps its states
    QVERIFY(m_out.contains("nothing was changed") && fileBytes() == m_filledFile);
    QCOMPARE(run("init"_s, {}, m_file->file("none/new"_s)), 2);
    QVERIFY2(m_error.contains("cannot be made: ") && m_out.isEmpty(), m_error);
}

QTEST_GUILESS_MAIN(TestQuillonctl)
#include "tst_quillonctl.moc"
