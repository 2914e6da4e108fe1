#include "support/OpenSsl.h"
#include "support/TestDatabase.h"

#include <csignal>
#include <memory>
#include <unistd.h>

namespace {

const QString program = QUILLON_BIN_DIR "/quillonctl"_s;
const QByteArray password("pass-word-1234");

/// Commands, and the rows that then differ: "table id|columns…" as they are now, or "table id gone".
const char *const changes[][2] = {
    {"radio add /dev/pts/999", "radio_adapters 2|STATIC|pts/999|999|1|1|0|1|0|0|"},
    {"radio add /run/r1 --name \"Van é\" --baud 4800 --listen-only --disabled",
        "radio_adapters 2|STATIC|/run/r1|Van é|0|0|4800|0|0|0|"},
    {"radio set 1 --autobaud --transmit", "radio_adapters 1|UART|ttyUSB7|n|1|1|4800|1|1|1|28931"},
    {"radio set 1 --name list --baud 9600", "radio_adapters 1|UART|ttyUSB7|list|0|0|9600|1|1|1|28931"},
    {"radio disable 1", "radio_adapters 1|UART|ttyUSB7|n|0|0|4800|0|1|1|28931"},
    {"radio remove 1", "radio_adapters 1 gone"},
    {"port block /dev/ttyUSB0", "port_blacklist 3|ttyUSB0"},
    {"port block ttyS0", ""}, // it is blocked already
    {"port unblock ttyS0", "port_blacklist 1 gone"},
    {"forwarder add raw [::1]:65535 --disabled --comment \"it's; \"",
        "data_forwarder 3|RAW|||it's; |::1|65535|0|0"},
    {"forwarder add eraw host-1.example:1", "data_forwarder 3|ERAW||||host-1.example|1|1|0"},
    {"forwarder add file /dev/null", "data_forwarder 3|FILE||||/dev/null||1|0"},
    {"forwarder add duos", "data_forwarder 3|DUOS||||||1|0"},
    {"forwarder set 2 --target 127.0.0.1:70", "data_forwarder 2|Raw|s|c|x|127.0.0.1|70|0|3"},
    {"forwarder enable 2", "data_forwarder 2|Raw|s|c|x|h|1|1|3"},
    {"forwarder remove 2", "data_forwarder 2 gone"},
    {"forwarder set 1 --endpoint http://h:8085 --topic top-1",
        "data_forwarder 1|GCP|s|top-1||http://h:8085||1|0"},
    {"forwarder set 1 --endpoint default", "data_forwarder 1|GCP|s|t||||1|0"},
    {"config set forward_invalid_data true", "system_configuration 7|forward_invalid_data|true"},
    {"config set autokill_url https://h:8443", "system_configuration 8|autokill_url|https://h:8443"},
    {"say \"it's; DROP --\"", "pending_actions 2|DISP,it's; DROP --"},
    {"restart", ""}, // it is pending already
    {"reboot --yes", "pending_actions 2|REBOOT"},
    {"pending clear", "pending_actions 1 gone"},
};

/// What the error line says, and the commands that are refused with it, between bars.
const char *const refusals[][2] = {
    {"--", "status --nonsense | reboot | restart --json | --wait 5x status"},
    {"must not be empty", "radio add '' | radio add pts/9 --name '' | port block \" \" | say ''"},
    {"a port is", "radio add ../etc"},
    {"a speed is", "radio add pts/999 --baud 4801 | radio add pts/999 --baud -1"},
    {"a name must not", "radio add pts/999 --name a|b"},
    {"no serial device", "radio add /etc/passwd"},
    {"already", "radio add ttyUSB7"},
    {"nothing to change", "radio set 1"},
    {"an id is",
        "radio set 1;DROP --name x | radio enable 2147483648 | radio disable -1 | radio remove HUGE"},
    {"id 99", "radio remove 99 | forwarder set 99 --comment x"},
    {"is not blocked", "port unblock ttyUSB7"},
    {"HOST:PORT", "forwarder add raw localhost | forwarder add raw ::1:9000"},
    {"1 to 65535", "forwarder add raw localhost:0 | forwarder add raw localhost:65536"},
    {"IPv6", "forwarder add raw [1.2.3.4]:9000"},
    {"host name", "forwarder add raw 999.1.1.1:9 | forwarder add raw a;b:9 | forwarder add eraw :9"},
    {"does not exist", "forwarder add file /none/log | forwarder add gcp /none --topic abc"},
    {"is a folder", "forwarder add file /etc"},
    {"is no JSON document", "forwarder add gcp /etc/passwd --topic 12345"},
    {"a topic is", "forwarder set 1 --topic 12345"},
    {"an address begins", "forwarder set 1 --endpoint https://u:p@h/x?y | config set autokill_url http://h"},
    {"has no --target", "forwarder set 1 --target h:1"},
    {"no key", "config get nothing | config set nothing 1"},
    {"kept by the daemon", "config set bdd_release 2.0"},
    {"true or false", "config set autokill_enabled yes"},
    {"must not hold", "config set autokill_pwd a\\b"},
    {"e-mail", "config set owner_email nobody"},
    {"reach a display", "say disp,"},
    {"control characters", "say \"a\tb\""},
    {"too long", "say HUGE | radio add HUGE | config get HUGE"},
    {"no user", "check --user no-such-user"},
};

/// One line of words, with double quotes around a word with blanks and '' for an empty one.
QStringList words(const QString &line)
{
    return QProcess::splitCommand(line)
        .replaceInStrings("''"_s, QString())
        .replaceInStrings("HUGE"_s, QString(100000, u'x'));
}

} // namespace

class TestQuillonctl : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void changesRows_data();
    void changesRows();
    void refusesAndChangesNothing_data();
    void refusesAndChangesNothing();
    void valuesFromStandardInput();
    void listingsAreJson();
    void statusSpeaksInWords();
    void credentials();
    void secretsStayHidden();
    void unusableFiles();
    void lockedOrReadOnlyFile();
    void checkFindings();
    void checkReachesServers();

private:
    int run(const QString &command, const QByteArray &input = {}, const QString &path = {});
    QMap<QString, QString> rows() const;
    void addRows() const;
    QByteArray fileBytes() const { return m_file->readFile("quillon.sqlite"_s); }

    std::unique_ptr<TestDatabase> m_file;
    QByteArray m_newFile;
    TestCredential m_credential;
    QByteArray m_out;
    QByteArray m_error;
};

void TestQuillonctl::initTestCase()
{
    init();
    FreshDatabase made(m_file->path());
    m_newFile = fileBytes();
}

void TestQuillonctl::init()
{
    m_file = std::make_unique<TestDatabase>();
    m_file->writeFile("quillon.sqlite"_s, m_newFile);
}

int TestQuillonctl::run(const QString &command, const QByteArray &input, const QString &path)
{
    QProcess process;
    process.setWorkingDirectory(m_file->folder());
    process.start(program, QStringList{"-c"_s, path.isEmpty() ? m_file->path() : path} + words(command));
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished();
    m_out = process.readAllStandardOutput();
    m_error = process.readAllStandardError();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

/// Every row of the file: its columns by "table id".
QMap<QString, QString> TestQuillonctl::rows() const
{
    QMap<QString, QString> result;
    for (const QString &table : {"radio_adapters"_s, "port_blacklist"_s, "data_forwarder"_s,
             "system_configuration"_s, "pending_actions"_s}) {
        for (const QString &row : m_file->run("SELECT * FROM "_s + table).split(u'\n', Qt::SkipEmptyParts))
            result.insert(table + u' ' + row.section(u'|', 0, 0), row.section(u'|', 1));
    }
    return result;
}

void TestQuillonctl::addRows() const
{
    m_file->run(
        "INSERT INTO radio_adapters VALUES (1, 'UART', 'ttyUSB7', 'n', 0, 0, 4800, 1, 1, 1, '28931')"_s);
    m_file->run("UPDATE data_forwarder SET secret = 's', context = 't', comment = '', target = 'http://h'"_s);
    m_file->run("INSERT INTO data_forwarder VALUES (2, 'Raw', 's', 'c', 'x', 'h', '1', 0, 3)"_s);
    m_file->run("INSERT INTO pending_actions VALUES (1, 'RESTART_APP')"_s);
}

void TestQuillonctl::changesRows_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("expected");
    for (const auto &each : changes)
        QTest::newRow(each[0]) << QString::fromUtf8(each[0]) << QString::fromUtf8(each[1]);
}

void TestQuillonctl::changesRows()
{
    QFETCH(QString, command);
    QFETCH(QString, expected);
    addRows();
    const QMap<QString, QString> before = rows();
    QCOMPARE(run(command), 0);
    QCOMPARE(m_error, QByteArray());
    QVERIFY(!m_out.isEmpty());
    QVERIFY(!command.startsWith("forwarder"_s) || m_out.contains("next restart"));

    const QMap<QString, QString> after = rows();
    QStringList changed;
    for (auto row = after.begin(); row != after.end(); ++row) {
        if (before.value(row.key()) != row.value())
            changed.append(row.key() + u'|' + row.value());
    }
    for (const QString &key : before.keys()) {
        if (!after.contains(key))
            changed.append(key + " gone"_s);
    }
    QCOMPARE(changed.join(u'\n'), expected);
}

void TestQuillonctl::refusesAndChangesNothing_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("reason");
    for (const auto &each : refusals) {
        for (const QString &command : QString::fromUtf8(each[1]).split(" | "_s))
            QTest::newRow(qPrintable(command)) << command << QByteArray(each[0]);
    }
}

void TestQuillonctl::refusesAndChangesNothing()
{
    QFETCH(QString, command);
    QFETCH(QByteArray, reason);
    addRows();
    const QByteArray before = fileBytes();
    QCOMPARE(run(command), 2);
    QVERIFY2(
        m_error.startsWith("quillonctl: ") && m_error.count('\n') == 1 && m_error.size() < 1000, m_error);
    QVERIFY2(m_error.contains(reason), m_error);
    QCOMPARE(m_out, QByteArray());
    QVERIFY(fileBytes() == before);
}

void TestQuillonctl::valuesFromStandardInput()
{
    QCOMPARE(run("config set autokill_pwd -"_s, password + "\nmore\n"), 0);
    QVERIFY(rows().values().contains("autokill_pwd|"_s + QString::fromLatin1(password)));

    const QByteArray before = fileBytes();
    QCOMPARE(run("config set owner_dept -"_s, "caf\xe9\n"), 2);
    QVERIFY(m_error.contains("UTF-8"));
    QProcess shell; // the same as an argument
    shell.start(
        "sh"_s, {"-c"_s, "exec \"$0\" -c \"$1\" say \"$(printf 'caf\\351')\""_s, program, m_file->path()});
    QVERIFY(shell.waitForFinished());
    QCOMPARE(shell.exitCode(), 2);
    QVERIFY(shell.readAllStandardError().contains("not UTF-8"));
    QVERIFY(fileBytes() == before);
}

void TestQuillonctl::listingsAreJson()
{
    m_file->addRadio("pts/999"_s, "bad \033[31m\"name"_s);
    m_file->run("INSERT INTO pending_actions (command) VALUES ('DISP,x')"_s);
    const QByteArray before = fileBytes();
    const QString listings[][3] = {{"status"_s, "release"_s, "1.1"_s},
        {"radio list"_s, "name"_s, "bad \033[31m\"name"_s}, {"port list"_s, "blocked"_s, "true"_s},
        {"forwarder list"_s, "topic"_s, "geoserver-topic-0"_s},
        {"config list"_s, "key"_s, "autokill_enabled"_s},
        {"config get owner_email"_s, "value"_s, "undefined"_s}, {"pending list"_s, "command"_s, "DISP,x"_s}};
    for (const auto &each : listings) {
        QCOMPARE(run(each[0] + " --json"_s), 0);
        const QJsonDocument json = QJsonDocument::fromJson(m_out);
        const QJsonObject object = json.isArray() ? json.array().first().toObject() : json.object();
        QCOMPARE(object.value(each[1]).toVariant().toString(), each[2]);
        QCOMPARE(run(each[0]), 0);
        QVERIFY(!m_out.isEmpty() && !m_out.contains('\033'));
    }
    QVERIFY(fileBytes() == before);
}

void TestQuillonctl::statusSpeaksInWords()
{
    m_file->run(
        "INSERT INTO radio_adapters VALUES (1, 'UART', 'ttyUSB0', 'a', 1, 1, 0, 1, 1, 0, ''),"
        " (2, 'UART', 'ttyUSB1', 'b', 0, 1, 4800, 1, 1, 1, '28931234'), (3, '', 'c', '', 1, 1, 0, 1, 1, 9,"
        " ''), (4, '', 'd', '', 1, 0, 0, 1, 1, 0, ''), (5, '', 'e', '', 1, 1, 0, 0, 1, 0, '')"_s);
    m_file->run("INSERT INTO data_forwarder VALUES (2, 'raw', '', '', '', 'h', '7', 1, 3),"
                " (3, 'FILE', '', '', '', '/f', '', 1, 77), (4, 'DUOS', '', '', '', '', '', 0, 3)"_s);
    QCOMPARE(run("status --json"_s), 0);
    const QJsonObject status = QJsonDocument::fromJson(m_out).object();
    QStringList states;
    for (const QString &list : {"radios"_s, "outputs"_s}) {
        for (const auto &row : status.value(list).toArray())
            states.append(row.toObject().value("state"_s).toString());
    }
    QCOMPARE(states.join(u'/'),
        "not identified/identified, working/stopped, no answer/listen only/disabled/"
        "not running/working/failed/disabled (last: working)"_s);

    QProcess process; // redraws until it is interrupted
    process.start(program, {"-c"_s, m_file->path(), "status"_s, "--watch"_s});
    QByteArray out;
    QTRY_VERIFY((out += process.readAllStandardOutput()).contains("not running"));
    for (const char *text :
        {"ttyUSB1", "28931234", "ICF-3162", "VHF", "4800 bit/s", "automatic", "h:7", "1.1"})
        QVERIFY2(out.contains(text), text);
    m_file->run("UPDATE data_forwarder SET context = 'changed' WHERE ids = 1"_s);
    QTRY_VERIFY((out += process.readAllStandardOutput()).contains("changed"));
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished());
    QVERIFY(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0);
}

void TestQuillonctl::credentials()
{
    const QJsonObject good = m_credential.document("https://127.0.0.1:1/token"_s);
    m_file->writeFile("key.json"_s, QJsonDocument(good).toJson());
    QCOMPARE(run("forwarder add gcp key.json --topic top-1"_s), 0);
    QCOMPARE(rows().value("data_forwarder 2"_s),
        "GCP|%1|top-1||||1|0"_s.arg(m_credential.secret("https://127.0.0.1:1/token"_s)));

    const auto key = [](const QByteArray &pem) { return QString::fromLatin1(pem); };
    QList<QStringList> bad{{"token_uri"_s, "ftp://x"_s, "no https address"_s},
        {"private_key"_s, key(m_credential.privateKey.left(900)), "OpenSSL"_s},
        {"private_key"_s, key(newKey("-algorithm EC -pkeyopt group:P-256"_s)), "RSA"_s},
        {"private_key"_s, key(newKey("-algorithm RSA -aes128 -pass pass:x"_s)), "OpenSSL"_s}};
    for (const QString &field : good.keys())
        bad.append({field, QString(), field + " is missing"_s});
    const QByteArray before = fileBytes();
    for (const QStringList &each : qAsConst(bad)) {
        QJsonObject document = good;
        document[each.at(0)] = each.at(1);
        m_file->writeFile("key.json"_s, QJsonDocument(document).toJson());
        QCOMPARE(run("forwarder set 1 --credentials key.json"_s), 2);
        QVERIFY2(m_error.contains(each.at(2).toUtf8()) && !m_error.contains("PRIVATE KEY"), m_error);
        QVERIFY(fileBytes() == before);
    }
}

void TestQuillonctl::secretsStayHidden()
{
    const QString secret = m_credential.secret("https://127.0.0.1:1/token"_s);
    m_file->addForwarder("GCP"_s, "https://127.0.0.1:1"_s, 0, secret, "topic"_s);
    m_file->setKey("autokill_pwd"_s, QString::fromLatin1(password));
    for (const QString &command :
        {"status"_s, "forwarder list"_s, "config list"_s, "config get autokill_pwd"_s, "check"_s}) {
        for (const QString &format : {""_s, " --json"_s}) {
            run(command + format);
            const QByteArray written = m_out + m_error;
            QVERIFY2(!written.contains(secret.left(40).toLatin1()), qPrintable(command));
            QVERIFY2(!written.contains(password) && !written.contains("PRIVATE KEY"), qPrintable(command));
        }
    }
    QCOMPARE(run("config get autokill_pwd --show-secrets"_s), 0);
    QCOMPARE(m_out, password + '\n');
}

void TestQuillonctl::unusableFiles()
{
    const QString name = "other?mode=rwc&%41 é.sqlite"_s;
    const QPair<QByteArray, QByteArray> cases[] = {{{}, "No such file"}, {"", "no Quillon configuration"},
        {QByteArray(5000, 'x'), "no SQLite database"}, {m_newFile.left(3000), "damaged"}};
    for (const auto &[content, reason] : cases) {
        if (!content.isNull())
            m_file->writeFile(name, content);
        for (const QString &command : {"status"_s, "radio add pts/999"_s, "restart"_s, "check"_s}) {
            QCOMPARE(run(command, {}, m_file->file(name)), 2);
            QVERIFY2(m_error.contains(reason) && m_error.count('\n') == 1, m_error);
            QCOMPARE(m_out, QByteArray());
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

void TestQuillonctl::lockedOrReadOnlyFile()
{
    QProcess holder;
    holder.start("sqlite3"_s, {m_file->path()});
    holder.write("BEGIN EXCLUSIVE;\n.shell echo locked\n");
    QVERIFY(holder.waitForReadyRead());
    const QByteArray before = fileBytes();
    for (const QString &command : {"status"_s, "check"_s, "radio add pts/999"_s, "restart"_s}) {
        QCOMPARE(run("--wait 0 "_s + command), 2);
        QVERIFY2(m_error.contains("locked by another program"), m_error);
    }
    holder.write(".shell sleep 1\nCOMMIT;\n");
    QVERIFY(holder.waitForBytesWritten());
    holder.closeWriteChannel();
    QCOMPARE(run("port list"_s), 0); // waits
    QVERIFY(holder.waitForFinished());

    QProcess process;
    process.start("unshare"_s,
        {"--mount"_s, "--map-root-user"_s, "sh"_s, "-c"_s,
            "mount --bind -o ro \"$1\" \"$1\" || exit 77; \"$0\" -c \"$1\" restart"_s, program,
            m_file->path()});
    QVERIFY(process.waitForFinished());
    QVERIFY(fileBytes() == before);
    const QByteArray error = process.readAllStandardError();
    if (process.exitCode() == 77 || error.contains("unshare"))
        QSKIP("this machine allows no read-only mount in a mount namespace");
    QCOMPARE(process.exitCode(), 2);
    QVERIFY(error.contains("cannot be changed: Read-only file system"));
}

void TestQuillonctl::checkFindings()
{
    const auto key = [](const char *name, const char *value) {
        return "UPDATE system_configuration SET value = '%2' WHERE name = '%1'"_s.arg(
            QLatin1String(name), QLatin1String(value));
    };
    const QString radio = "INSERT INTO radio_adapters (method, port, enabled, autobaud) VALUES "_s;
    const QString output = "INSERT INTO data_forwarder (type, enabled, target) VALUES "_s;
    struct Finding
    {
        QString setup;
        int code;
        const char *line;
        QString options = {};
    };
    const Finding findings[] = {{{}, 0, "Nothing to report"}, {output + "('FOO', 0, '')"_s, 0, "Nothing"},
        {"INSERT INTO system_configuration (name) VALUES ('typo')"_s, 1, "warning: typo: "},
        {key("autokill_enabled", "maybe"), 1, "true or false"}, {key("autokill_enabled", "TRUE"), 1, "_url"},
        {key("bdd_release", "1.0"), 1, "when it starts"}, {key("bdd_release", "0.21.0"), 1, "removes every"},
        {key("bdd_release", "2.0"), 2, "error: schema release: "},
        {radio + "('STATIC', 'pts/999', 1, 1)"_s, 1, "does not exist"},
        {radio + "('UART', 'ttyUSB999', 1, 1)"_s, 0, "Nothing"},
        {radio + "('UART', 'ttyAMA0', 1, 1)"_s, 1, "unblock"},
        {radio + "('UART', 'ttyUSB999', 1, 0)"_s, 2, "no speed"},
        {radio + "('UART', 'a', 0, 1), ('UART', '/dev/a', 0, 1)"_s, 1, "radio 2 (/dev/a)"},
        {radio + "('STATIC', 'FOLDER/quillon.sqlite', 1, 1)"_s, 2, "cannot be opened by", " --user nobody"_s},
        {output + "('FOO', 1, '')"_s, 2, "forwarder remove 2"},
        {output + "('FILE', 1, '/none/x')"_s, 2, "/none does not exist"},
        {output + "('FILE', 1, '/etc/x')"_s, 2, "/etc cannot be written by", " --user nobody"_s},
        {{}, 2, "cannot change the file", " --user nobody"_s},
        {output + "('RAW', 1, '')"_s, 2, "no host and port"},
        {"UPDATE data_forwarder SET enabled = 1"_s, 2, "credential"}};
    for (const Finding &each : findings) {
        init();
        m_file->run("UPDATE data_forwarder SET enabled = 0"_s);
        m_file->run(
            each.setup.isEmpty() ? "SELECT 1"_s : QString(each.setup).replace("FOLDER"_s, m_file->folder()));
        const QByteArray before = fileBytes();
        QCOMPARE(run("check --json"_s + each.options), each.code);
        QCOMPARE(QJsonDocument::fromJson(m_out).array().isEmpty(), each.code == 0);
        QCOMPARE(run("check"_s + each.options), each.code);
        QVERIFY2(m_out.contains(each.line) && m_error.isEmpty(), m_out);
        QVERIFY(fileBytes() == before);
    }
}

void TestQuillonctl::checkReachesServers()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const QString address = "//127.0.0.1:%1"_s.arg(server.serverPort());
    m_file->run("DELETE FROM data_forwarder"_s);
    m_file->addForwarder("RAW"_s, "127.0.0.1"_s, server.serverPort());
    m_file->addForwarder(
        "GCP"_s, "http:"_s + address, 0, m_credential.secret("https:"_s + address), "topic"_s);
    QCOMPARE(run("check"_s), 0);

    server.close();
    QCOMPARE(run("check"_s), 2);
    QCOMPARE(m_out.count(" cannot be reached: Connection refused"), 3);
}

QTEST_GUILESS_MAIN(TestQuillonctl)
#include "tst_quillonctl.moc"
