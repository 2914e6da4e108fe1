#pragma once

#include "forwarders/StreamDataForwarder.h"
#include "protocol/ActionCommands.h"
#include "protocol/Notifications.h"
#include "support/RecordingLink.h"
#include "support/TestDatabase.h"

#include <QtNetwork>

#include <memory>

/// An adapter that speaks to one output.
class Speaker : public RecordingLink
{
public:
    explicit Speaker(const DataForwarder &forwarder, const QString &port = "ttyUSB0"_s)
        : RecordingLink("Équipe 1"_s, port)
    {
        connect(this, &RecordingLink::dataReceived, &forwarder, &DataForwarder::forward);
        connect(this, &RecordingLink::dataSent, &forwarder, &DataForwarder::forwardSent);
        connect(this, &RecordingLink::radioChanged, &forwarder, &DataForwarder::radioChanged);
    }
    void hear(const QSharedPointer<IcomCommandResponse> &response)
    {
        response->stampNow();
        emit dataReceived(response);
    }
    void hear(const QByteArray &frame) { hear(parseNotification(this, frame)); }
    /// The answer to a query.
    void hear(IcomCommand &query, const QByteArray &frame)
    {
        connect(&query, &IcomCommand::commandResponse, this,
            [this](const QSharedPointer<IcomCommandResponse> &response) { hear(response); });
        query.validResponse(frame);
    }
    void tell(const QSharedPointer<IcomCommand> &command)
    {
        command->setParent(this);
        command->stampNow();
        emit dataSent(command);
        command->setParent(nullptr); // it is shared
    }
};

/// A program that has joined the stream.
class Listener
{
public:
    explicit Listener(const QString &path) { m_socket.connectToServer(path); }

    /// Waits for so many records in all.
    bool has(int count)
    {
        return QTest::qWaitFor([&] { return read() >= count; });
    }
    /// How many have arrived.
    int read()
    {
        while (m_socket.canReadLine()) {
            m_lines.append(m_socket.readLine());
            m_records.append(QJsonDocument::fromJson(m_lines.last()).object());
        }
        return m_records.size();
    }
    QString text(int index, const QString &member) const
    {
        return m_records.at(index).value(member).toVariant().toString();
    }
    QString last(const QString &member) const { return text(m_records.size() - 1, member); }
    QJsonObject record(int index) const { return m_records.at(index); }
    QByteArray lines() const { return m_lines.join(); }
    QLocalSocket &socket() { return m_socket; }

private:
    QLocalSocket m_socket;
    QByteArrayList m_lines;
    QList<QJsonObject> m_records;
};

/// A command that counts how often it is asked for its line.
class CountedCommand : public DisplayTextCommand
{
public:
    CountedCommand() : DisplayTextCommand(nullptr, "text"_s, 1) { }
    QString announcedText() override
    {
        ++asked;
        return DisplayTextCommand::announcedText();
    }
    int asked = 0;
};

/// What the tests of the stream share: an output on a socket's path, anew for each test.
class StreamTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ConfigDatabase::getInstance(m_file.path()); }
    void init() { offer(m_path); }
    void cleanup() { m_output.reset(); }

protected:
    void offer(const QString &target, int port = 0)
    {
        m_id = m_file.addForwarder("STREAM"_s, target, port);
        m_output = std::make_unique<StreamDataForwarder>(nullptr, m_id);
    }
    int status() const { return m_file.forwarderStatus(m_id); }

    TestDatabase m_file;
    const QString m_path = m_file.file("stream"_s);
    int m_id = 0;
    std::unique_ptr<StreamDataForwarder> m_output;
};
