#include "config/ConfigDatabase.h"
#include "support/TestDatabase.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTest>

#include <csignal>
#include <memory>
#include <unistd.h>

namespace {

const QString program = QStringLiteral(QUILLON_BIN_DIR "/quillonctl");
const QByteArray password("pass-word-1234");

/// A store on a path of its own, only for its making of a new file.
class FreshDatabase : public ConfigDatabase
{
public:
    explicit FreshDatabase(const QString &path) : ConfigDatabase(path) { }
};

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(content);
}

/// One line of words, with double quotes around a word with blanks and '' for an empty one.
QStringList words(const QString &line)
{
    return QProcess::splitCommand(line).replaceInStrings(QStringLiteral("''"), QString());
}

QByteArray newKey(const QStringList &arguments)
{
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"), QStringList(QStringLiteral("genpkey")) + arguments);
    openssl.waitForFinished();
    return openssl.readAllStandardOutput();
}

struct Change
{
    const char *name;
    const char *setup; ///< a statement that is run before
    const char *command;
    const char *query;
    const char *expected; ///< what the query then yields
};

const char *const radio = "SELECT method || '/' || port || '/' || name || '/' || autobaud || "
                          "tx_enabled || baudrate || enabled || discovered || status || esn FROM "
                          "radio_adapters";
const char *const output = "SELECT type || '/' || target || '/' || port || '/' || secret || '/' || "
                           "context || '/' || comment || '/' || enabled || status FROM "
                           "data_forwarder WHERE ids = 2";
const char *const blocked = "SELECT group_concat(port) FROM port_blacklist";
const char *const pending = "SELECT group_concat(command, '/') FROM pending_actions";
const char *const addRadio = "INSERT INTO radio_adapters VALUES (1, 'UART', 'ttyUSB0', 'n', 1, 1, 0, "
                             "1, 1, 1, '28931')";
const char *const addOutput = "INSERT INTO data_forwarder VALUES (2, 'Raw', 's', 'c', 'x', 'h', '1', "
                              "1, 3)";

const Change changes[] = {
    {"radio", "", "radio add /dev/pts/999", radio, "STATIC/pts/999/999/110100"},
    {"radio, every option", "", "radio add /run/r1 --name \"Van é\" --baud 4800 --listen-only --disabled",
        radio, "STATIC//run/r1/Van é/004800000"},
    {"radio set", addRadio, "radio set 1 --name list --baud 9600 --listen-only", radio,
        "UART/ttyUSB0/list/00960011128931"},
    {"radio set back", addRadio, "radio set 1 --autobaud --transmit", radio, "UART/ttyUSB0/n/11011128931"},
    {"radio disable", addRadio, "radio disable 1", radio, "UART/ttyUSB0/n/11001128931"},
    {"radio enable", "INSERT INTO radio_adapters (ids, enabled) VALUES (7, 0)", "radio enable 7",
        "SELECT enabled FROM radio_adapters", "1"},
    {"radio remove", addRadio, "radio remove 1", radio, ""},
    {"port block", "", "port block /dev/ttyUSB0", blocked, "ttyS0,ttyAMA0,ttyUSB0"},
    {"port block twice", "", "port block ttyS0", blocked, "ttyS0,ttyAMA0"},
    {"port unblock", "", "port unblock ttyS0", blocked, "ttyAMA0"},
    {"raw", "", "forwarder add raw 127.0.0.1:9000 --comment \"it's; \"", output,
        "RAW/127.0.0.1/9000///it's; /10"},
    {"raw, IPv6", "", "forwarder add raw [::1]:65535 --disabled", output, "RAW/::1/65535////00"},
    {"eraw", "", "forwarder add eraw host-1.example:1", output, "ERAW/host-1.example/1////10"},
    {"file", "", "forwarder add file /dev/null", output, "FILE//dev/null/////10"},
    {"duos", "", "forwarder add duos", output, "DUOS//////10"},
    {"forwarder set", addOutput, "forwarder set 2 --target [::1]:70", output, "Raw/::1/70/s/c/x/13"},
    {"forwarder disable", addOutput, "forwarder disable 2", output, "Raw/h/1/s/c/x/03"},
    {"forwarder remove", addOutput, "forwarder remove 2", output, ""},
    {"cloud endpoint", "", "forwarder set 1 --endpoint http://127.0.0.1:8085 --topic top-1",
        "SELECT target || ' ' || context FROM data_forwarder", "http://127.0.0.1:8085 top-1"},
    {"cloud endpoint back", "UPDATE data_forwarder SET target = 'http://h'",
        "forwarder set 1 --endpoint default", "SELECT target FROM data_forwarder", ""},
    {"key", "", "config set forward_invalid_data true",
        "SELECT value FROM system_configuration WHERE name = 'forward_invalid_data'", "true"},
    {"missing key", "", "config set autokill_url https://h.example:8443",
        "SELECT group_concat(value) FROM system_configuration WHERE name = 'autokill_url'",
        "https://h.example:8443"},
    {"say", "", "say status", pending, "DISP,status"},
    {"say, with quotes", "", "say \"it's; DROP --\"", pending, "DISP,it's; DROP --"},
    {"restart", "", "restart", pending, "RESTART_APP"},
    {"restart twice", "INSERT INTO pending_actions VALUES (1, 'RESTART_APP')", "restart", pending,
        "RESTART_APP"},
    {"reboot", "", "reboot --yes", pending, "REBOOT"},
    {"pending clear", "INSERT INTO pending_actions VALUES (1, 'a'), (2, 'b')", "pending clear", pending, ""},
};

/// Command lines that are refused, and what the error line says.
const char *const refusals[][2] = {
    {"", "subcommand is required"},
    {"status --nonsense", "--nonsense"},
    {"reboot", "--yes"},
    {"restart --json", "--json"},
    {"--wait 5x status", "--wait"},
    {"radio add ''", "must not be empty"},
    {"radio add ../etc", "a port is"},
    {"radio add pts/999 --baud 4801", "a speed is"},
    {"radio add pts/999 --baud -1", "a speed is"},
    {"radio add pts/999 --name ''", "must not be empty"},
    {"radio add pts/999 --name a|b", "a name must not"},
    {"radio add /etc/passwd", "no serial device"},
    {"radio add ttyUSB7", "already"},
    {"radio set 1", "nothing to change"},
    {"radio set 1 --baud 9600 --autobaud", "excludes"},
    {"radio set 1;DROP --name x", "an id is"},
    {"radio enable 2147483648", "an id is"},
    {"radio disable -1", "an id is"},
    {"radio remove 99", "no radio with the id 99"},
    {"port unblock ttyUSB7", "is not blocked"},
    {"port block \" \"", "must not be empty"},
    {"forwarder add raw localhost", "HOST:PORT"},
    {"forwarder add raw localhost:0", "1 to 65535"},
    {"forwarder add raw localhost:65536", "1 to 65535"},
    {"forwarder add raw ::1:9000", "HOST:PORT"},
    {"forwarder add raw [1.2.3.4]:9000", "IPv6"},
    {"forwarder add raw 999.1.1.1:9000", "host name"},
    {"forwarder add raw a;b:9000", "host name"},
    {"forwarder add eraw :9000", "host name"},
    {"forwarder add file /nonexistent/log", "does not exist"},
    {"forwarder add file /etc", "is a folder"},
    {"forwarder add gcp /nonexistent --topic abc", "does not exist"},
    {"forwarder add gcp /etc/passwd --topic 12345", "is no JSON document"},
    {"forwarder set 1 --topic 12345", "a topic is"},
    {"forwarder set 1 --endpoint ftp://h", "an address begins"},
    {"forwarder set 1 --endpoint https://u:p@h/x?y", "an address begins"},
    {"forwarder set 1 --target h:1", "has no --target"},
    {"forwarder set 99 --comment x", "id 99"},
    {"forwarder remove 0", "an id is"},
    {"config get nothing", "no key"},
    {"config set nothing 1", "no key"},
    {"config set bdd_release 2.0", "kept by the daemon"},
    {"config set autokill_enabled yes", "true or false"},
    {"config set autokill_url http://h", "an address begins"},
    {"config set autokill_pwd a\\b", "must not hold"},
    {"config set owner_email nobody", "e-mail"},
    {"config set owner_dept ''", "must not be empty"},
    {"say ''", "must not be empty"},
    {"say disp,", "reach a display"},
    {"say a\tb", "control characters"},
    {"check --user no-such-user", "no user"},
};

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
    void refusesOtherEncodings();
    void readsValueFromStandardInput();
    void listingsAreJson_data();
    void listingsAreJson();
    void statusSpeaksInWords();
    void watchRedrawsUntilInterrupted();
    void credentialBecomesSecret();
    void refusesCredential_data();
    void refusesCredential();
    void secretsStayHidden();
    void unusableFile_data();
    void unusableFile();
    void readOnlyFile();
    void lockedFile();
    void olderReleaseTakesNoOutputs();
    void checkFindings_data();
    void checkFindings();
    void checkReachesServers();

private:
    int run(const QStringList &arguments, const QByteArray &input = {});
    int runOn(const QString &path, const QStringList &arguments, const QByteArray &input = {});
    QString credentialFile(const QJsonObject &document) const;
    QString folder() const { return m_file->folder(); }
    QByteArray fileHash() const;

    std::unique_ptr<TestDatabase> m_file;
    QByteArray m_newFile;
    QByteArray m_key;
    QJsonObject m_document;
    QByteArray m_out;
    QByteArray m_error;
};

void TestQuillonctl::initTestCase()
{
    const TestDatabase made;
    const FreshDatabase database(made.path());
    m_newFile = readFile(made.path());
    m_key = newKey(words(QStringLiteral("-quiet -algorithm RSA -pkeyopt rsa_keygen_bits:2048")));
    m_document = {{QStringLiteral("project_id"), QStringLiteral("p")},
        {QStringLiteral("private_key_id"), QStringLiteral("k")},
        {QStringLiteral("private_key"), QString::fromLatin1(m_key)},
        {QStringLiteral("client_email"), QStringLiteral("a@b")},
        {QStringLiteral("token_uri"), QStringLiteral("https://127.0.0.1:1/token")}};
}

void TestQuillonctl::init()
{
    m_file = std::make_unique<TestDatabase>();
    writeFile(m_file->path(), m_newFile);
}

int TestQuillonctl::runOn(const QString &path, const QStringList &arguments, const QByteArray &input)
{
    QProcess process;
    process.setWorkingDirectory(folder());
    process.start(program, QStringList{QStringLiteral("--configfile"), path} + arguments);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished();
    m_out = process.readAllStandardOutput();
    m_error = process.readAllStandardError();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

int TestQuillonctl::run(const QStringList &arguments, const QByteArray &input)
{
    return runOn(m_file->path(), arguments, input);
}

QString TestQuillonctl::credentialFile(const QJsonObject &document) const
{
    QString path = folder() + QStringLiteral("/credentials.json");
    writeFile(path, QJsonDocument(document).toJson());
    return path;
}

QByteArray TestQuillonctl::fileHash() const
{
    return QCryptographicHash::hash(readFile(m_file->path()), QCryptographicHash::Sha256);
}

void TestQuillonctl::changesRows_data()
{
    QTest::addColumn<QString>("setup");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("query");
    QTest::addColumn<QString>("expected");
    for (const Change &change : changes)
        QTest::newRow(change.name) << QString::fromUtf8(change.setup) << QString::fromUtf8(change.command)
                                   << QString::fromUtf8(change.query) << QString::fromUtf8(change.expected);
}

void TestQuillonctl::changesRows()
{
    QFETCH(QString, setup);
    QFETCH(QString, command);
    QFETCH(QString, query);
    QFETCH(QString, expected);
    if (!setup.isEmpty())
        m_file->run(setup);
    QCOMPARE(run(words(command)), 0);
    QCOMPARE(m_error, QByteArray());
    QVERIFY(!m_out.isEmpty());
    QCOMPARE(m_file->value(query).toString(), expected);
    QVERIFY(!command.startsWith(QLatin1String("forwarder")) || m_out.contains("next restart"));
}

void TestQuillonctl::refusesAndChangesNothing_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("reason");

    for (const auto &each : refusals)
        QTest::newRow(each[0]) << (QByteArray(each[0]).contains("\t")
                ? QStringList{QStringLiteral("say"), QStringLiteral("a\tb")}
                : words(QString::fromUtf8(each[0])))
                               << QByteArray(each[1]);
    const QString huge(100000, QLatin1Char('x'));
    QTest::newRow("huge text") << QStringList{QStringLiteral("say"), huge} << QByteArray("too long");
    QTest::newRow("huge name") << QStringList{QStringLiteral("radio"), QStringLiteral("add"), huge}
                               << QByteArray("too long");
    QTest::newRow("huge id") << QStringList{QStringLiteral("radio"), QStringLiteral("remove"), huge}
                             << QByteArray("an id is");
    QTest::newRow("huge key") << QStringList{QStringLiteral("config"), QStringLiteral("get"), huge}
                              << QByteArray("too long");
}

void TestQuillonctl::refusesAndChangesNothing()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, reason);
    m_file->addStaticRadio(QStringLiteral("ttyUSB7"), QStringLiteral("n"));
    const QByteArray before = fileHash();
    QCOMPARE(run(arguments), 2);
    QVERIFY2(
        m_error.startsWith("quillonctl: ") && m_error.count('\n') == 1 && m_error.size() < 1000, m_error);
    QVERIFY2(m_error.contains(reason), m_error);
    QCOMPARE(m_out, QByteArray());
    QCOMPARE(fileHash(), before);
}

void TestQuillonctl::refusesOtherEncodings()
{
    const QByteArray before = fileHash();
    QProcess shell;
    shell.start(QStringLiteral("sh"),
        {QStringLiteral("-c"), QStringLiteral("exec \"$0\" -c \"$1\" say \"$(printf 'caf\\351')\""), program,
            m_file->path()});
    QVERIFY(shell.waitForFinished());
    QCOMPARE(shell.exitCode(), 2);
    QVERIFY(shell.readAllStandardError().contains("not UTF-8"));
    QCOMPARE(run(words(QStringLiteral("config set owner_dept -")), "caf\xe9\n"), 2);
    QVERIFY(m_error.contains("UTF-8"));
    QCOMPARE(fileHash(), before);
}

void TestQuillonctl::readsValueFromStandardInput()
{
    QCOMPARE(run(words(QStringLiteral("config set autokill_pwd -")), password + "\nmore\n"), 0);
    QCOMPARE(
        m_file->value(QStringLiteral("SELECT value FROM system_configuration WHERE name = 'autokill_pwd'")),
        QVariant(QString::fromLatin1(password)));
}

void TestQuillonctl::listingsAreJson_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("expected");
    const auto row = [](const char *command, const char *key, const QVariant &expected) {
        QTest::newRow(command) << QString::fromLatin1(command) << QString::fromLatin1(key) << expected;
    };
    row("status --json", "release", QStringLiteral("1.1"));
    row("radio list --json", "name", QStringLiteral("bad \033[31m\"name"));
    row("port list --json", "blocked", true);
    row("forwarder list --json", "topic", QStringLiteral("geoserver-topic-0"));
    row("config list --json", "key", QStringLiteral("autokill_enabled"));
    row("config get owner_email --json", "value", QStringLiteral("undefined"));
    row("pending list --json", "command", QStringLiteral("DISP,x"));
}

void TestQuillonctl::listingsAreJson()
{
    QFETCH(QString, command);
    QFETCH(QString, key);
    QFETCH(QVariant, expected);
    m_file->addStaticRadio(QStringLiteral("pts/999"), QStringLiteral("bad \033[31m\"name"));
    m_file->run(QStringLiteral("INSERT INTO pending_actions (command) VALUES ('DISP,x')"));
    const QByteArray before = fileHash();
    QCOMPARE(run(words(command)), 0);
    const QJsonDocument document = QJsonDocument::fromJson(m_out);
    const QJsonObject object = document.isArray() ? document.array().first().toObject() : document.object();
    QCOMPARE(object.value(key).toVariant(), expected);
    QCOMPARE(run(words(command.remove(QStringLiteral(" --json")))), 0);
    QVERIFY(!m_out.isEmpty() && !m_out.contains('\033'));
    QCOMPARE(fileHash(), before);
}

void TestQuillonctl::statusSpeaksInWords()
{
    m_file->run(QStringLiteral(
        "INSERT INTO radio_adapters VALUES (1, 'UART', 'ttyUSB0', 'one', 1, 1, 0, 1, 1, 0, ''), "
        "(2, 'UART', 'ttyUSB1', 'two', 0, 1, 4800, 1, 1, 1, '28931234'), (3, 'UART', 'u', 'three', 1, 1, 0, "
        "1, 1, 9, "
        "''), (4, 'UART', 'v', 'four', 1, 0, 0, 1, 1, 0, ''), (5, 'UART', 'w', 'five', 1, 1, 0, 0, 1, 0, "
        "'')"));
    m_file->run(
        QStringLiteral("INSERT INTO data_forwarder VALUES (2, 'raw', '', '', '', 'h', '7', 1, 3), "
                       "(3, 'FILE', '', '', '', '/f', '', 1, 77), (4, 'DUOS', '', '', '', '', '', 0, 3)"));
    QCOMPARE(run(words(QStringLiteral("status --json"))), 0);
    const QJsonObject status = QJsonDocument::fromJson(m_out).object();
    QStringList states;
    for (const char *list : {"radios", "outputs"}) {
        for (const auto &row : status.value(QLatin1String(list)).toArray())
            states.append(row.toObject().value(QStringLiteral("state")).toString());
    }
    QCOMPARE(states,
        QStringList({QStringLiteral("not identified"), QStringLiteral("identified, working"),
            QStringLiteral("stopped, no answer"), QStringLiteral("listen only"), QStringLiteral("disabled"),
            QStringLiteral("not running"), QStringLiteral("working"), QStringLiteral("failed"),
            QStringLiteral("disabled (last: working)")}));
    QCOMPARE(run({QStringLiteral("status")}), 0);
    for (const char *text :
        {"ttyUSB1", "28931234", "ICF-3162", "VHF", "4800 bit/s", "automatic", "h:7", "1.1"})
        QVERIFY2(m_out.contains(text), text);
}

void TestQuillonctl::watchRedrawsUntilInterrupted()
{
    QProcess process;
    process.start(
        program, {QStringLiteral("-c"), m_file->path(), QStringLiteral("status"), QStringLiteral("--watch")});
    QByteArray out;
    QTRY_VERIFY((out += process.readAllStandardOutput()).contains("not running"));
    m_file->run(QStringLiteral("UPDATE data_forwarder SET status = 3"));
    QTRY_VERIFY((out += process.readAllStandardOutput()).contains("  working"));
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
}

void TestQuillonctl::credentialBecomesSecret()
{
    const QString path = credentialFile(m_document);
    QCOMPARE(run({QStringLiteral("forwarder"), QStringLiteral("add"), QStringLiteral("gcp"), path,
                 QStringLiteral("--topic"), QStringLiteral("top-1")}),
        0);
    const auto row =
        m_file->run(QStringLiteral("SELECT type, secret, context, target FROM data_forwarder WHERE ids = 2"))
            .first();
    QCOMPARE(row.at(0).toString(), QStringLiteral("GCP"));
    QCOMPARE(row.at(1).toByteArray(), readFile(path).toBase64());
    QCOMPARE(row.at(2).toString(), QStringLiteral("top-1"));
    QCOMPARE(row.at(3).toString(), QString());
}

void TestQuillonctl::refusesCredential_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QByteArray>("reason");
    for (const QString &field : m_document.keys())
        QTest::addRow("without %s", qPrintable(field))
            << field << QString() << field.toLatin1() + " is missing";
    QTest::newRow("no address") << QStringLiteral("token_uri") << QStringLiteral("ftp://x")
                                << QByteArray("no https address");
    QTest::newRow("cut key") << QStringLiteral("private_key") << QString::fromLatin1(m_key.left(900))
                             << QByteArray("OpenSSL");
    const QString curve = QStringLiteral("-algorithm EC -pkeyopt ec_paramgen_curve:P-256");
    QTest::newRow("curve key") << QStringLiteral("private_key") << QString::fromLatin1(newKey(words(curve)))
                               << QByteArray("RSA");
    const QString encrypted = QStringLiteral("-quiet -algorithm RSA -aes128 -pass pass:x");
    QTest::newRow("encrypted key") << QStringLiteral("private_key")
                                   << QString::fromLatin1(newKey(words(encrypted))) << QByteArray("OpenSSL");
}

void TestQuillonctl::refusesCredential()
{
    QFETCH(QString, field);
    QFETCH(QString, value);
    QFETCH(QByteArray, reason);
    QJsonObject document = m_document;
    document[field] = value;
    const QByteArray before = fileHash();
    QCOMPARE(run({QStringLiteral("forwarder"), QStringLiteral("set"), QStringLiteral("1"),
                 QStringLiteral("--credentials"), credentialFile(document)}),
        2);
    QVERIFY2(m_error.contains(reason) && !m_error.contains("PRIVATE KEY"), m_error);
    QCOMPARE(fileHash(), before);
}

void TestQuillonctl::secretsStayHidden()
{
    const QByteArray secret = QJsonDocument(m_document).toJson().toBase64();
    m_file->addForwarder(QStringLiteral("GCP"), QStringLiteral("https://127.0.0.1:1"), 0,
        QString::fromLatin1(secret), QStringLiteral("topic"));
    m_file->setKey(QStringLiteral("autokill_pwd"), QString::fromLatin1(password));
    for (const char *command :
        {"status", "forwarder list", "config list", "config get autokill_pwd", "check"}) {
        for (const char *format : {"", " --json"}) {
            run(words(QLatin1String(command) + QLatin1String(format)));
            const QByteArray written = m_out + m_error;
            QVERIFY2(!written.contains(secret.left(40)) && !written.contains(password), command);
            QVERIFY2(!written.contains("PRIVATE KEY"), command);
        }
    }
    QCOMPARE(run(words(QStringLiteral("config get autokill_pwd --show-secrets"))), 0);
    QCOMPARE(m_out, password + '\n');
}

void TestQuillonctl::unusableFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("missing") << QByteArray() << QByteArray("No such file");
    QTest::newRow("empty") << QByteArray("") << QByteArray("no Quillon configuration");
    QTest::newRow("no database") << QByteArray(5000, 'x') << QByteArray("no SQLite database");
    QTest::newRow("cut") << m_newFile.left(3000) << QByteArray("damaged");
}

void TestQuillonctl::unusableFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, reason);
    const QString path = folder() + QStringLiteral("/other?mode=rwc&%41 é.sqlite");
    if (!content.isNull())
        writeFile(path, content);
    for (const char *command : {"status", "radio add pts/999", "restart", "check"}) {
        QCOMPARE(runOn(path, words(QLatin1String(command))), 2);
        QVERIFY2(m_error.contains(reason) && m_error.count('\n') == 1, m_error);
        QCOMPARE(m_out, QByteArray());
        QCOMPARE(QFile::exists(path), !content.isNull());
        QCOMPARE(readFile(path), content);
    }
    QCOMPARE(runOn(folder(), {QStringLiteral("status")}), 2);
    QVERIFY(m_error.contains("is no file"));
}

void TestQuillonctl::readOnlyFile()
{
    const QStringList unshare{QStringLiteral("--mount"), QStringLiteral("--map-root-user")};
    if (QProcess::execute(QStringLiteral("unshare"), unshare + QStringList(QStringLiteral("true"))) != 0)
        QSKIP("this machine allows no mount namespace");
    const QByteArray before = fileHash();
    const QString script =
        QStringLiteral("mount --bind -o ro \"$2\" \"$2\" || exit 77\n"
                       "\"$1\" -c \"$2\" status >&2 || exit 1\nexec \"$1\" -c \"$2\" restart");
    QProcess process;
    process.start(QStringLiteral("unshare"),
        unshare
            + QStringList{QStringLiteral("sh"), QStringLiteral("-c"), script, QStringLiteral("sh"), program,
                m_file->path()});
    QVERIFY(process.waitForFinished());
    if (process.exitCode() == 77)
        QSKIP("this machine allows no read-only mount");
    QCOMPARE(process.exitCode(), 2);
    QVERIFY(process.readAllStandardError().contains("cannot be changed: Read-only file system"));
    QCOMPARE(fileHash(), before);
}

void TestQuillonctl::lockedFile()
{
    QProcess holder;
    holder.start(QStringLiteral("sqlite3"), {m_file->path()});
    holder.write("BEGIN EXCLUSIVE;\n.shell echo locked\n");
    QByteArray said;
    QTRY_VERIFY((said += holder.readAllStandardOutput()).contains("locked"));
    const QByteArray before = fileHash();
    for (const char *command : {"status", "check", "radio add pts/999", "restart"}) {
        QCOMPARE(
            run(QStringList{QStringLiteral("--wait"), QStringLiteral("0")} + words(QLatin1String(command))),
            2);
        QVERIFY2(m_error.contains("locked by another program"), m_error);
    }
    QCOMPARE(fileHash(), before);

    QProcess waiting;
    waiting.start(program, {QStringLiteral("-c"), m_file->path(), QStringLiteral("restart")});
    QVERIFY(waiting.waitForStarted());
    holder.write("COMMIT;\n");
    QVERIFY(holder.waitForBytesWritten());
    QVERIFY(waiting.waitForFinished());
    QCOMPARE(waiting.exitCode(), 0);
    holder.closeWriteChannel();
    QVERIFY(holder.waitForFinished());
}

void TestQuillonctl::olderReleaseTakesNoOutputs()
{
    m_file->setKey(QStringLiteral("bdd_release"), QStringLiteral("0.21.0"));
    const QByteArray before = fileHash();
    QCOMPARE(run(words(QStringLiteral("forwarder add duos"))), 2);
    QVERIFY(m_error.contains("older release"));
    QCOMPARE(fileHash(), before);
}

void TestQuillonctl::checkFindings_data()
{
    QTest::addColumn<QString>("setup");
    QTest::addColumn<QString>("options");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("line");
    const auto row = [](const char *name, const char *setup, int code, const char *line,
                         const char *options = "") {
        QTest::newRow(name) << QString::fromLatin1(setup) << QString::fromLatin1(options) << code
                            << QByteArray(line);
    };
    const auto key = [&row](const char *name, const char *value, int code, const char *line) {
        const QString setup = QStringLiteral("UPDATE system_configuration SET value = '%2' WHERE name = '%1'")
                                  .arg(QLatin1String(name), QLatin1String(value));
        row(qPrintable(QStringLiteral("%1 %2").arg(QLatin1String(name), QLatin1String(value))),
            setup.toLatin1().constData(), code, line);
    };
    row("nothing", "", 0, "Nothing to report");
    row("disabled output", "INSERT INTO data_forwarder (type, enabled) VALUES ('FOO', 0)", 0, "Nothing");
    row("unknown key", "INSERT INTO system_configuration (name) VALUES ('typo')", 1, "warning: typo: ");
    key("autokill_enabled", "maybe", 1, "true or false");
    key("autokill_enabled", "TRUE", 1, "autokill_url");
    key("bdd_release", "1.0", 1, "when it starts");
    key("bdd_release", "0.21.0", 1, "removes every output");
    key("bdd_release", "2.0", 2, "error: schema release: ");
    row("absent device",
        "INSERT INTO radio_adapters (method, port, enabled, autobaud) VALUES ('STATIC', 'pts/999', 1, 1)", 1,
        "does not exist");
    row("unplugged radio",
        "INSERT INTO radio_adapters (method, port, enabled, autobaud) VALUES ('UART', 'ttyUSB999', 1, 1)", 0,
        "Nothing");
    row("blocked radio",
        "INSERT INTO radio_adapters (method, port, enabled, autobaud) VALUES ('UART', 'ttyAMA0', 1, 1)", 1,
        "unblock");
    row("no speed",
        "INSERT INTO radio_adapters (method, port, enabled, autobaud) VALUES ('UART', 'ttyUSB999', 1, 0)", 2,
        "no speed");
    row("port twice", "INSERT INTO radio_adapters (port, enabled) VALUES ('a', 0), ('/dev/a', 0)", 1,
        "radio 2 (/dev/a)");
    row("forbidden device",
        "INSERT INTO radio_adapters (method, port, enabled, autobaud) VALUES ('STATIC', '%1/quillon.sqlite', "
        "1, 1)",
        2, "quillon.sqlite cannot be opened by the user nobody", "--user nobody");
    row("unknown kind", "INSERT INTO data_forwarder (type, enabled) VALUES ('FOO', 1)", 2,
        "forwarder remove 2");
    row("missing folder",
        "INSERT INTO data_forwarder (type, target, enabled) VALUES ('FILE', '/nonexistent/x', 1)", 2,
        "/nonexistent does not exist");
    row("forbidden folder", "INSERT INTO data_forwarder (type, target, enabled) VALUES ('FILE', '/etc/x', 1)",
        2, "/etc cannot be written by the user nobody", "--user nobody");
    row("forbidden configuration", "", 2, "cannot change the file", "--user nobody");
    row("credential", "UPDATE data_forwarder SET enabled = 1", 2, "credential");
    row("no target", "INSERT INTO data_forwarder (type, target, port, enabled) VALUES ('RAW', '', '', 1)", 2,
        "no host and port");
}

void TestQuillonctl::checkFindings()
{
    QFETCH(QString, setup);
    QFETCH(QString, options);
    QFETCH(int, code);
    QFETCH(QByteArray, line);
    m_file->run(QStringLiteral("UPDATE data_forwarder SET enabled = 0"));
    if (!setup.isEmpty())
        m_file->run(setup.contains(QLatin1String("%1")) ? setup.arg(folder()) : setup);
    const QByteArray before = fileHash();
    QCOMPARE(run(words(QStringLiteral("check ") + options)), code);
    QVERIFY2(m_out.contains(line), m_out);
    QCOMPARE(m_error, QByteArray());
    QCOMPARE(run(words(QStringLiteral("check --json ") + options)), code);
    QCOMPARE(QJsonDocument::fromJson(m_out).array().isEmpty(), code == 0);
    QCOMPARE(fileHash(), before);
}

void TestQuillonctl::checkReachesServers()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const int port = server.serverPort();
    m_file->run(QStringLiteral("DELETE FROM data_forwarder"));
    m_file->addForwarder(QStringLiteral("RAW"), QStringLiteral("127.0.0.1"), port);
    QJsonObject document = m_document;
    document[QStringLiteral("token_uri")] = QStringLiteral("https://127.0.0.1:%1/token").arg(port);
    m_file->addForwarder(QStringLiteral("GCP"), QStringLiteral("http://127.0.0.1:%1").arg(port), 0,
        QString::fromLatin1(QJsonDocument(document).toJson().toBase64()), QStringLiteral("topic"));
    QCOMPARE(run({QStringLiteral("check")}), 0);

    server.close();
    QCOMPARE(run({QStringLiteral("check")}), 2);
    QCOMPARE(m_out.count(" cannot be reached: Connection refused"), 3);
}

QTEST_GUILESS_MAIN(TestQuillonctl)

#include "tst_quillonctl.moc"
