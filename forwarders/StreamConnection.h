#pragma once

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>

/// One client of the stream: gets whole records in their order, and is told how many it was too slow for.
/// What it sends is read and dropped; a client that closes its sending side has left.
class StreamConnection : public QObject
{
    Q_OBJECT

public:
    /// More than this never waits for one client, in bytes.
    static constexpr int longestQueue = 1024 * 1024;

    /// Takes a connected socket that does not block.
    StreamConnection(QObject *parent, int descriptor);
    ~StreamConnection() override;

    /// Hands one record to the operating system as far as it takes it, and keeps the rest. May emit left().
    void send(const QByteArray &record);

signals:
    /// The connection has ended, once. The object is for its owner to delete, not at once.
    void left();

private:
    void readAndDrop();
    void sendWaiting();
    void leave();

    const int m_descriptor;
    QSocketNotifier m_readable;
    QSocketNotifier m_writable; // enabled while something waits
    QByteArray m_waiting;
    qint64 m_lost = 0; // records since the queue was full
    bool m_hasLeft = false;
};
