#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>
#include <sys/types.h>

class StreamConnection;

/// Hands the same records to every client that has joined, on a Unix socket or on a TCP port. Nothing here
/// ever blocks, and no client costs another one anything.
class StreamServer : public QObject
{
    Q_OBJECT

public:
    static constexpr int mostClients = 64; ///< a further one is let in and closed at once

    /// `greeting` makes what each client gets first.
    explicit StreamServer(std::function<QByteArray()> greeting);
    /// Closes every connection and removes the socket file, unless it has become another's.
    ~StreamServer() override;

    /// Listens at an absolute path, where `port` means nothing, or on a TCP port of an IP address. Empty when
    /// it does, else what keeps it from that.
    QString listen(const QString &target, int port);

    bool hasClients() const { return !m_clients.isEmpty(); }
    void send(const QByteArray &record);

private:
    void acceptClient();
    void removeClient(StreamConnection *client);
    void rememberFile(const QString &path);

    const std::function<QByteArray()> m_greeting;
    int m_listener = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
    QTimer m_pause; // in accepting, after it has failed
    QList<StreamConnection *> m_clients;
    bool m_turnsAway = false; // which is logged once
    QByteArray m_path; // of the socket file; empty for TCP
    dev_t m_device = 0; // its identity
    ino_t m_inode = 0;
};
