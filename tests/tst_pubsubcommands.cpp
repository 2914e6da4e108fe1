#include "forwarders/Outbox.h"
#include "forwarders/OutboxFiles.h"
#include "support/QuillonctlTest.h"

class TestPubSubCommands : public QuillonctlTest
{
    Q_OBJECT

private slots:
    void showsAndDropsOutboxes();
};

void TestPubSubCommands::showsAndDropsOutboxes()
{
    const QString path = outboxPath(m_file->path(), 1);
    m_file->run("UPDATE data_forwarder SET type = 'PUBSUB' WHERE ids = 1"_s);
    QCOMPARE(run("status"_s), 0); // it has not run yet
    Outbox running(path);
    const QByteArray hour =
        QDateTime::currentDateTimeUtc().addSecs(-3600).toString(Qt::ISODateWithMs).toUtf8();
    const OutboxMessage message{running.nextSequence(), R"({"transmissionDate":")" + hour + "\"}"};
    const OutboxMessage bad{running.nextSequence(), "bad"};
    QCOMPARE(running.apply({{message, bad}, {}, {}, 7}).value_or(-1), 0);
    QCOMPARE(running.apply({{}, {}, {{bad, "400 no"_s}}, 0}).value_or(-1), 0);

    QCOMPARE(run("status --json"_s), 0);
    const QJsonValue output = QJsonDocument::fromJson(m_out)["outputs"_s][0];
    QJsonObject outbox = output["outbox"_s].toObject();
    QVERIFY(qAbs(outbox.take("oldest"_s).toInt() - 3600) < 60);
    const QJsonObject expected{{"waiting"_s, 1}, {"dropped"_s, 7}, {"refused"_s, 1}};
    QCOMPARE(outbox, expected);
    QCOMPARE(run("status"_s), 0);
    QVERIFY2(QRegExp(".*\n1 +1 +60 min +7 +1 *\n.*"_s).exactMatch(QString::fromUtf8(m_out)), m_out);
    QCOMPARE(run("outbox show 1"_s), 0);
    QVERIFY2(QRegExp(".*\n2 +400 no +bad *\n.*"_s).exactMatch(QString::fromUtf8(m_out)), m_out);
    QCOMPARE(run("outbox drop 1"_s), 2);
    QCOMPARE(run("outbox drop 1 --yes"_s), 0);
    QCOMPARE(running.read({1, 9}, 9, 999)->size(), 0);
    QCOMPARE(run("outbox show 1"_s), 0); // the counters go on
    QVERIFY2(QRegExp(".*\n1 +0 +- +8 +1 *\n\nNo refused message is kept.\n"_s)
                 .exactMatch(QString::fromUtf8(m_out)),
        m_out);
    const OutboxMessage old{running.nextSequence(), R"({"transmissionDate":"2000-01-01T00:00:00.000Z"})"};
    QCOMPARE(running.apply({{old}, {}, {}, 0}).value_or(-1), 0);
    QCOMPARE(run("status"_s), 0); // heard before the clock was set
    QVERIFY2(QRegExp(".*\n1 +1 +- +8 +1 *\n.*"_s).exactMatch(QString::fromUtf8(m_out)), m_out);
    QVERIFY(QFile::exists(path));
    m_file->run("DELETE FROM data_forwarder WHERE ids = 1"_s);
    QCOMPARE(run("outbox list"_s), 0);
    QVERIFY2(QRegExp(".*\n1 +1 +- +8 +1 +no +.*"_s).exactMatch(QString::fromUtf8(m_out)), m_out);
    QCOMPARE(run("outbox drop 1 --yes"_s), 0);
    QVERIFY(!QFile::exists(path));
}

QTEST_GUILESS_MAIN(TestPubSubCommands)
#include "tst_pubsubcommands.moc"
