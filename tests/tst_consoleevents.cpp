#include "support/ConsoleTest.h"
#include "tools/console/History.h"

namespace {

QByteArray frame(int number)
{
    return "{\"record\":\"frame\",\"port\":\"ttyUSB0\",\"kind\":\"gps\",\"text\":\"n"
        + QByteArray::number(number) + "<script>\"}\n";
}

} // namespace

class TestConsoleEvents : public ConsoleTest
{
    Q_OBJECT

private slots:
    void followsTheStream();
    void eventClients();
    void whoDoesNotReadMisses();
    void historyIsBounded();
    void framesPerMinute();

private:
    void configureStream() { m_file->addForwarder("STREAM"_s, streamPath()); }
    /// Listens as a daemon does, and takes the console's connection.
    void serveStream();
    QString streamPath() const { return m_file->file("stream"_s); }

    QLocalServer m_daemon;
    QLocalSocket *m_stream = nullptr;
};

void TestConsoleEvents::serveStream()
{
    m_daemon.close();
    QVERIFY(m_daemon.listen(streamPath()));
    QTRY_VERIFY_WITH_TIMEOUT(m_daemon.hasPendingConnections(), 10000);
    m_stream = m_daemon.nextPendingConnection();
}

void TestConsoleEvents::followsTheStream()
{
    configureStream();
    start(); // before the daemon
    ConsoleClient follower(m_port);
    follower.send(get("/api/events"));
    QVERIFY(follower.waitFor("does not offer its stream"));

    serveStream();
    m_stream->write("{\"record\":\"gateway\",\"gateway\":\"van\"}\nno json\n" + frame(1) + frame(2).left(20));
    QVERIFY(follower.waitFor("n1<script>"));
    QVERIFY(follower.received().contains("\nevent: reset\n"));
    m_stream->write(frame(2).mid(20));
    QVERIFY2(follower.waitFor("n2<script>", 1000), "a frame has to appear within a second");

    const QJsonObject state = bodyOf(ask(get("/api/state")));
    const QJsonObject activity = state.value("activity"_s).toArray().at(0).toObject();
    QCOMPARE(activity.value("lastHeard"_s).toObject().value("text"_s).toString(), "n2<script>"_s);
    QCOMPARE(activity.value("perMinute"_s).toArray().size(), 60);
    QCOMPARE(state.value("gateway"_s).toObject().value("gateway"_s).toString(), "van"_s);

    m_file->run("UPDATE radio_adapters SET status = 2"_s); // given up: those who watch are told
    m_stream->write("{\"record\":\"radio\",\"port\":\"ttyUSB0\",\"state\":\"stopped\"}\n");
    QVERIFY(follower.waitFor("\"status\":2", 2000));
    m_stream->abort();
    QTRY_VERIFY_WITH_TIMEOUT(m_daemon.hasPendingConnections(), 10000); // it joins again
}

void TestConsoleEvents::eventClients()
{
    configureStream();
    start();
    serveStream();
    for (int i = 1; i <= 1200; ++i)
        m_stream->write(frame(i));
    QTRY_COMPARE(bodyOf(ask(get("/api/state"))).value("sequence"_s).toInt(), 1200);

    std::vector<ConsoleClient> clients;
    for (int i = 0; i < 32; ++i)
        clients.emplace_back(m_port).send(get("/api/events"));
    for (ConsoleClient &client : clients)
        QVERIFY(client.waitFor("n1200<"));
    QVERIFY(!clients.front().received().contains("n200<")); // the last 1,000 are there
    QVERIFY(clients.front().received().contains("n201<"));
    const QByteArray refused = ask(get("/api/events"));
    QCOMPARE(statusOf(refused), 503);
    QVERIFY(refused.contains("\r\nRetry-After: "));

    // One that was away goes on where it was.
    const QByteArray all = clients.back().received();
    const int id = all.lastIndexOf("\nid: ") + 5;
    const QByteArray last = all.mid(id, all.indexOf('\n', id) - id);
    clients.pop_back();
    m_stream->write(frame(1201));
    QVERIFY(clients.front().waitFor("n1201<"));
    ConsoleClient again(m_port);
    again.send(get("/api/events?after=" + last));
    QVERIFY(again.waitFor("n1201<"));
    QCOMPARE(again.received().count("\nevent: record\n"), 1);
    QVERIFY(!again.received().contains("event: reset"));
    clients.pop_back();
    const auto isServed = [&] { // with the id of another run of the console
        clients.emplace_back(m_port).send(get("/api/events", "Last-Event-ID: ffff-1\r\n"));
        return statusOf(clients.back().answer(200)) != 503;
    };
    QVERIFY(QTest::qWaitFor(isServed));
    QVERIFY(clients.back().waitFor("n202<"));
}

void TestConsoleEvents::whoDoesNotReadMisses()
{
    const TestCertificates certificates;
    configureStream();
    start({"--certificate"_s, certificates.file("cert.pem"_s), "--key"_s, certificates.file("key.pem"_s)});
    serveStream();
    ConsoleClient client(m_port, certificates);
    client.send(get("/api/events"));
    QVERIFY(client.waitFor("event: state"));
    client.readSlowly();
    const int count = 2000; // more than the system's buffers and the history take, no faster than is sent
    for (int i = 1; i <= count; ++i) {
        m_stream->write(frame(i).replace("<script>", QByteArray(4000, 'x')));
        if (i % 50 == 0)
            QTest::qWait(50);
    }
    client.readFast();
    QVERIFY(client.waitFor("\"n" + QByteArray::number(count) + 'x', 30000));
    QVERIFY(client.received().contains("event: missed\ndata: {\"count\":"));
}

void TestConsoleEvents::historyIsBounded()
{
    History history;
    for (int i = 0; i < 1200; ++i)
        history.add("x", {}, {});
    QCOMPARE(history.first(), 201);
    for (int i = 0; i < 10; ++i)
        history.add(QByteArray(256 * 1024, 'x'), {}, {});
    QCOMPARE(history.last(), 1210);
    QCOMPARE(history.first(), 1207);
}

void TestConsoleEvents::framesPerMinute()
{
    History history;
    const QDateTime start = QDateTime::fromSecsSinceEpoch(1700000040, Qt::UTC); // a whole minute
    const auto hear = [&](int second) {
        history.add("x", {{"record"_s, "frame"_s}, {"port"_s, "p"_s}}, start.addSecs(second));
    };
    const auto counts = [&](int second) {
        return history.activity(start.addSecs(second)).at(0).toObject().value("perMinute"_s).toArray();
    };
    for (int second : {0, 59, 60, 180})
        hear(second);
    QCOMPARE(counts(190).at(59).toInt(), 1);
    QCOMPARE(counts(190).at(58).toInt(), 0);
    QCOMPARE(counts(190).at(56).toInt(), 2);
    QCOMPARE(counts(59 * 60).at(0).toInt(), 2);
    QCOMPARE(counts(60 * 60).at(0).toInt(), 1);
    hear(-3600); // the clock was set back
    QCOMPARE(counts(-3600).at(59).toInt(), 2);
    QCOMPARE(counts(-3540).at(58).toInt(), 2);
    hear(100000);
    QCOMPARE(
        counts(100000), QJsonArray::fromVariantList(QVariantList(QVector<QVariant>(59, 0).toList()) << 1));

    History unset; // of a machine whose clock begins with 1970
    unset.add("x", {{"record"_s, "frame"_s}, {"port"_s, "p"_s}}, QDateTime::fromSecsSinceEpoch(0, Qt::UTC));
    QCOMPARE(unset.activity(QDateTime::fromSecsSinceEpoch(0, Qt::UTC)).size(), 1);
}

QTEST_GUILESS_MAIN(TestConsoleEvents)
#include "tst_consoleevents.moc"
