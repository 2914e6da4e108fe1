#include "support/QuillonctlTest.h"

#include <sys/file.h>
#include <sys/stat.h>

class TestQuillonctlCheck : public QuillonctlTest
{
    Q_OBJECT

private slots:
    void findings();
    void believesARunningDaemon();
    void fullDisk();
    void reachesServers();
    void namesOfOneDevice();
};

void TestQuillonctlCheck::findings()
{
    const QString key = "UPDATE system_configuration SET value = "_s;
    const QString radio =
        "INSERT INTO radio_adapters (method, port, enabled, autobaud, tx_enabled) VALUES "_s;
    const QString output = "INSERT INTO data_forwarder (type, enabled, target) VALUES "_s;
    const QPair<QByteArray, QString> cases[] = {
        {"warning: typo: ", "INSERT INTO system_configuration (name) VALUES ('typo')"_s},
        {"warning: autokill_enabled: ", key + "'maybe' WHERE name = 'autokill_enabled'"_s},
        {"warning: autokill_url: ", key + "'TRUE' WHERE name = 'autokill_enabled'"_s},
        {"warning: schema release: ", key + "'0.21.0' WHERE name = 'bdd_release'"_s},
        {"error: schema release: ", key + "'2.0' WHERE name = 'bdd_release'"_s},
        {"warning: radio 2 (pts/999): /dev/pts/999 ", radio + "('STATIC', 'pts/999', 1, 1, 1)"_s},
        {"warning: radio 2 (ttyAMA0): its port is blocked", radio + "('UART', 'ttyAMA0', 1, 1, 1)"_s},
        {"error: radio 2 (ttyUSB998): it is only listened to", radio + "('UART', 'ttyUSB998', 1, 1, 0)"_s},
        {"warning: radio 2 (/dev/ttyUSB7): another row", radio + "('UART', '/dev/ttyUSB7', 0, 1, 1)"_s},
        {"error: radio 2 (ttyUSB999): its fixed speed", radio + "('UART', 'ttyUSB999', 1, 0, 1)"_s},
        {"error: output 3 (FOO): ", output + "('FOO', 1, '')"_s},
        {"error: output 3 (RAW): :0 cannot be reached: no host", output + "('RAW', 1, '')"_s},
        {"error: output 1 (GCP): nothing is sent: ",
            "UPDATE data_forwarder SET enabled = 2 - ids, target = 'https://h/x', secret = '%1'"_s.arg(
                m_credential.secret("http://[::1]"_s))},
        {"error: output 1 (GCP): its credential cannot be used: it is no JSON document; what it postpones "
         "stays in memory",
            "UPDATE data_forwarder SET enabled = 2 - ids"_s}};
    for (const auto &[line, setup] : cases) {
        init();
        m_file->run("UPDATE data_forwarder SET enabled = 0"_s);
        QCOMPARE(run("check"_s), 0);
        QCOMPARE(m_out, QByteArray("Nothing to report.\n"));
        m_file->run(setup);
        const QByteArray before = fileBytes();
        QCOMPARE(run("check"_s), line.startsWith("error") ? 2 : 1);
        QVERIFY2(m_out.startsWith(line) && m_out.count('\n') == 1 && m_error.isEmpty(), m_out);
        QVERIFY(fileBytes() == before);
    }

    m_file->run(radio + "('STATIC', '/etc/shadow', 1, 1, 1)"_s);
    m_file->run(output + "('FILE', 1, '/etc/x')"_s);
    QCOMPARE(run("check --user nobody --json"_s), 2);
    for (const char *text :
        {"change the file", "/etc/shadow cannot be opened by", "/etc cannot be written by"})
        QVERIFY2(m_out.contains(text), text);
}

void TestQuillonctlCheck::believesARunningDaemon()
{
    m_file->run("UPDATE data_forwarder SET enabled = 0"_s);
    m_file->run("INSERT INTO data_forwarder (type, enabled, target, status) VALUES ('DUOS', 1, '', 4),"
                " ('DUOS', 0, '', 4), ('DUOS', 1, '', 3), ('FOO', 1, '', 4)"_s);
    m_file->run("INSERT INTO radio_adapters (method, port, enabled, autobaud, tx_enabled, status) VALUES"
                " ('STATIC', '/dev/null', 1, 1, 1, 2), ('STATIC', '/dev/zero', 1, 1, 1, 1),"
                " ('STATIC', '/dev/full', 0, 1, 1, 2), ('UART', 'ttyUSB998', 1, 1, 1, 2),"
                " ('STATIC', '/dev/zero', 1, 1, 1, 2)"_s);
    const QByteArray always = "warning: radio 6 (/dev/zero): another row";
    const QByteArray atLast = "error: output 6 (FOO): ";
    const auto lines = [this] {
        run("check"_s);
        return m_out.trimmed().split('\n');
    };
    const QByteArrayList stopped = lines(); // what it wrote last is old
    QCOMPARE(stopped.size(), 2);
    QFile lock(m_file->writeFile("quillon.sqlite.lock"_s, {}));
    QCOMPARE(lines(), stopped);
    QVERIFY(lock.open(QIODevice::ReadWrite));
    QCOMPARE(::flock(lock.handle(), LOCK_EX), 0);
    const QByteArrayList running = lines();
    QCOMPARE(running.size(), 4);
    const QByteArray expected[] = {"warning: radio 2 (/dev/null): it does not answer. Remedy: ", always,
        "warning: output 3 (DUOS): it has failed. Remedy: journalctl -u quillon", atLast};
    for (int i = 0; i < running.size(); ++i)
        QVERIFY2(running.at(i).startsWith(expected[i]), running.at(i));

    // The daemon would write the row of a radio that it drives over that of the next one with its id.
    for (const QString &id : {"2"_s, "4"_s}) {
        QCOMPARE(run("radio remove "_s + id), 2);
        QVERIFY2(m_error.contains("the daemon may drive radio " + id.toLatin1()), m_error);
    }
    QCOMPARE(run("radio remove 5"_s), 0); // it is unplugged
    lock.close();
    QCOMPARE(run("radio remove 2"_s), 0);
}

void TestQuillonctlCheck::fullDisk()
{
    const QByteArray out =
        runShell("unshare -rm sh -ec '\n"
                 "mkdir full; mount -t tmpfs -o size=512k none full; cp quillon.sqlite full\n"
                 "head -c 1m /dev/zero >full/rest || :\n"
                 "for command in check restart \"say x\"\n"
                 "do %1 -c full/quillon.sqlite $command || :; done' 2>&1"_s.arg(m_program),
            m_file->folder());
    if (out.contains("unshare: "))
        QSKIP("no namespaces here");
    QCOMPARE(out.count("the disk of full/quillon.sqlite is full"), 3);
}

void TestQuillonctlCheck::reachesServers()
{
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const QString address = "//127.0.0.1:%1"_s.arg(server.serverPort());
    m_file->run("DELETE FROM data_forwarder"_s);
    m_file->addForwarder("RAW"_s, "127.0.0.1"_s, server.serverPort());
    QCOMPARE(::mkfifo(QFile::encodeName(m_file->file("pipe"_s)).constData(), 0600), 0);
    m_file->addForwarder("FILE"_s, m_file->file("pipe"_s));
    m_file->addForwarder("GCP"_s, "http:"_s + address, 0,
        m_credential.secret("https:"_s + address).insert(76, u'\n'), "topic"_s);
    QCOMPARE(run("check"_s), 0);

    server.close();
    QCOMPARE(run("check"_s), 2);
    QCOMPARE(m_out.count(" cannot be reached: Connection refused"), 3);
}

void TestQuillonctlCheck::namesOfOneDevice()
{
    const QString link = m_file->file("link"_s);
    QVERIFY(QFile::link("/dev/null"_s, link));
    const QPair<QString, QString> cases[] = {{"port block null"_s, {}},
        {"port block "_s + link, "It leads to /dev/null, which"_s}, {"port unblock "_s + link, {}},
        {"radio add "_s + link, "The port is blocked as null: quillonctl port unblock null"_s},
        {"check"_s, "radio 2 (%1): its port is blocked as null. Remedy: quillonctl port unblock null,"_s},
        {"radio add null"_s, "Radio 2 (%1) stands for the same device: from now on the new row counts"_s},
        {"check"_s, "radio 3 (null): another row stands for the same device"_s}};
    for (const auto &[command, line] : cases) {
        run(command);
        QVERIFY2(m_out.contains(QString(line).replace("%1"_s, link).toUtf8()), m_out);
    }
}

QTEST_GUILESS_MAIN(TestQuillonctlCheck)
#include "tst_quillonctlcheck.moc"
