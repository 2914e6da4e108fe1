#include "config/ConfigKeys.h"
#include "support/LogCapture.h"
#include "support/PubSubOutput.h"

using Output = PubSubOutput;

class TestOutbox : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void burstsAndTakenFilesLoseNothingMore();
    void numbersAreNeverUsedTwice();
    void damagedOutboxIsMovedAside_data();
    void damagedOutboxIsMovedAside();
    void diskThatFailsKeepsTheYoungest();
    void diskThatOnlyReads();
    void stopTriesTheDiskOnceMore();
    void tellsOfStrayOutboxes();
    void limitDropsTheOldest();
    void closedOutboxIsTriedAgain();

private:
    TestDatabase m_file;
    TestCertificates m_certificates;
    TestCredential m_key;
};

void TestOutbox::burstsAndTakenFilesLoseNothingMore()
{
    Output output(m_file, m_certificates, m_key);
    const HttpServer::Answer token = std::exchange(output.token, {503});
    output.start();
    output.say(1, 2500); // what piles up in a stall comes before any timer
    QTRY_COMPARE(output.waiting(), "2500"_s);
    QCOMPARE(output.stored("SELECT dropped FROM state"_s), "0"_s);

    for (const char *part : {"", "-wal", "-shm"})
        QVERIFY(QFile::remove(output.path() + QLatin1String(part)));
    output.say(2501, 2501);
    QTRY_COMPARE(output.waiting(), "1"_s);
    QCOMPARE(output.stored("SELECT sequence FROM message"_s), "2501"_s);
    output.token = token;
    QTRY_COMPARE(output.texts(), numbers(2501, 2501));
}

void TestOutbox::numbersAreNeverUsedTwice()
{
    const QString path = m_file.file("used.sqlite"_s);
    const QString crashed = m_file.file("crashed.sqlite"_s);
    QList<qint64> used;
    QByteArray uuid;
    {
        Outbox outbox(path);
        used = {outbox.nextSequence(), outbox.nextSequence()};
        uuid = outbox.uuid();
        for (const QString &part : {QString(), "-wal"_s})
            QVERIFY(QFile::copy(path + part, crashed + part)); // as a power failure would leave it
    }
    for (const QString &each : {path, crashed}) {
        for (int run = 0; run < 2; ++run) {
            Outbox outbox(each);
            const qint64 sequence = outbox.nextSequence();
            QVERIFY2(sequence > used.last(), qPrintable(each));
            QCOMPARE(outbox.uuid(), uuid);
            used.append(sequence);
        }
    }
}

void TestOutbox::damagedOutboxIsMovedAside_data()
{
    QTest::addColumn<QByteArray>("statement");
    QTest::addColumn<int>("place"); // of a byte that is overwritten; at 72 nothing stands
    QTest::newRow("no database") << QByteArray("DELETE FROM message") << 0;
    QTest::newRow("a format to read only") << QByteArray("DELETE FROM message") << 18;
    QTest::newRow("another schema") << QByteArray("CREATE TABLE other (a)") << 72;
    QTest::newRow("no name") << QByteArray("DELETE FROM state") << 72;
    QTest::newRow("no number") << QByteArray("UPDATE state SET reserved = 9e18") << 72;
}

void TestOutbox::damagedOutboxIsMovedAside()
{
    QFETCH(QByteArray, statement);
    QFETCH(int, place);
    Output output(m_file, m_certificates, m_key);
    Outbox(output.path()).nextSequence();
    SqliteConnection(output.path(), SQLITE_OPEN_READWRITE, 0).run(statement.constData());
    QFile file(output.path());
    QVERIFY(file.open(QIODevice::ReadWrite) && file.seek(place) && file.putChar(5));
    file.close();
    LogCapture log;
    output.start();
    output.say(1, 2);
    QTRY_COMPARE(output.texts(), numbers(1, 2));
    QCOMPARE(log.count("The damaged outbox was moved aside to"_s), 1);
    QCOMPARE(QDir(m_file.folder()).entryList({"*.damaged-????????T??????.sqlite"_s}).size(), 1);
    const QString next = damagedOutboxPath(output.path());
    QVERIFY(QFile::copy(output.path(), next));
    QVERIFY(damagedOutboxPath(output.path()) != next); // in the same second, too
    for (const QString &each : QDir(m_file.folder()).entryList({"*.damaged-*"_s}))
        QVERIFY(QFile::remove(m_file.file(each)));
}

void TestOutbox::diskThatFailsKeepsTheYoungest()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(QDir().mkdir(output.path())); // stands in the file's way
    LogCapture log;
    QVERIFY(output.startWithToken());
    output.say(1, 2005);
    QTRY_COMPARE(output.status(), 4);
    QCOMPARE(log.count("cannot be used"_s), 1);
    QCOMPARE(log.count("of the oldest messages were dropped"_s), 1);
    QVERIFY(QDir().rmdir(output.path()));
    QTRY_COMPARE(output.texts(), numbers(6, 2005));
    QTRY_COMPARE(output.stored("SELECT dropped FROM state"_s), "5"_s);
    QTRY_COMPARE(output.status(), 3);
    QCOMPARE(log.count("can be used again"_s), 1);
}

/// What can be read and not be written does not work; that it does again is found out by itself.
void TestOutbox::diskThatOnlyReads()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(output.startWithToken());
    output.say(1, 1);
    QTRY_COMPARE(output.status(), 3);
    SqliteConnection other(output.path(), SQLITE_OPEN_READWRITE, 1000);
    other.run("BEGIN IMMEDIATE");
    LogCapture log;
    output.delay = 800;
    output.say(2, 2); // its commit fails, and it is accepted then
    QTRY_COMPARE(output.status(), 4);
    QTRY_COMPARE(output.texts(), numbers(1, 2));
    QTest::qWait(300);
    QCOMPARE(output.status(), 4);
    other.run("ROLLBACK");
    QTRY_COMPARE(output.status(), 3);

    output.delay = 0;
    for (int i = 0; i < 99; ++i)
        output.nextAnswers.append({503});
    output.say(3, 9);
    QTRY_COMPARE(output.waiting(), "7"_s);
    other.run("BEGIN IMMEDIATE");
    output.say(10, 10);
    QTRY_COMPARE(log.count("cannot be used"_s), 2);
    QTest::qWait(1500); // for several reads
    output.nextAnswers.clear();
    QTRY_COMPARE(output.texts().size(), 10);
    QCOMPARE(output.status(), 4);
    QCOMPARE(log.count("can be used again"_s), 1);
    QCOMPARE(log.count("cannot be used"_s), 2);
    other.run("ROLLBACK");
    QTRY_COMPARE(output.status(), 3);
    QCOMPARE(output.waiting(), "0"_s);
}

void TestOutbox::stopTriesTheDiskOnceMore()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(QDir().mkdir(output.path()));
    m_file.run("UPDATE data_forwarder SET status = 3 WHERE ids = ?"_s, {output.id}); // of an earlier run
    output.token.code = -1;
    LogCapture log;
    output.start();
    QCOMPARE(output.status(), 0);
    output.say(1, 3);
    QTRY_COMPARE(log.count("cannot be used"_s), 1); // tried again a second later
    QVERIFY(QDir().rmdir(output.path()));
    output.forwarder.reset();
    QCOMPARE(output.waiting(), "3"_s);
}

void TestOutbox::tellsOfStrayOutboxes()
{
    Output output(m_file, m_certificates, m_key);
    LogCapture log;
    Outbox(output.path()).nextSequence();
    logStrayOutboxes();
    QCOMPARE(log.text(), QString());
    m_file.run("UPDATE data_forwarder SET type = 'FILE' WHERE ids = ?"_s, {output.id});
    logStrayOutboxes();
    QCOMPARE(log.text(), "The outbox \"%1\" belongs to no output and is left alone"_s.arg(output.path()));
}

void TestOutbox::limitDropsTheOldest()
{
    Output output(m_file, m_certificates, m_key);
    m_file.setKey(OUTBOX_LIMIT_KEY, "1"_s);
    output.token.code = 503;
    LogCapture log;
    output.start();
    m_file.run("DELETE FROM system_configuration WHERE name = ?"_s, {OUTBOX_LIMIT_KEY}); // it holds on
    QTest::qWait(1100);
    for (int i = 1; i <= 1500; ++i)
        output.say(QByteArray::number(i) + QByteArray(1000, 'x'));
    QTRY_COMPARE(output.stored("SELECT waiting + dropped FROM state"_s), "1500"_s);
    const int dropped = output.stored("SELECT dropped FROM state"_s).toInt();
    QVERIFY(dropped > 500 && dropped < 1000);
    QVERIFY(QFileInfo(output.path()).size() <= 4LL * 1024 * 1024);
    QCOMPARE(log.count("The outbox is full"_s), 1);
    output.token.code = 200;
    QTRY_COMPARE_WITH_TIMEOUT(output.texts().size(), 1500 - dropped, 8000);
    QVERIFY(output.texts().first().startsWith(QString::number(dropped + 1) + u'x'));
}

void TestOutbox::closedOutboxIsTriedAgain()
{
    Output output(m_file, m_certificates, m_key);
    QVERIFY(QDir().mkdir(output.path()));
    QVERIFY(output.startWithToken());
    QTRY_COMPARE(output.status(), 4); // nobody knows what may be in it
    QVERIFY(QDir().rmdir(output.path()));
    QTRY_COMPARE(output.status(), 3);
}

QTEST_GUILESS_MAIN(TestOutbox)
#include "tst_outbox.moc"
