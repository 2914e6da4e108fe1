#pragma once

#include "tools/console/Reply.h"
#include "tools/console/RequestReader.h"

#include <QObject>
#include <QTimer>

class QTcpSocket;

/// One request of one client, and its answer. Whoever is slow or says nothing useful is let go: 5 s for the
/// whole request, 15 s without progress for the answer.
class Connection : public QObject
{
    Q_OBJECT

public:
    /// Takes over the socket.
    explicit Connection(QTcpSocket *socket, QObject *parent);

    void answer(const Reply &reply);
    /// Hands the socket on, so that it stays open; the connection is done then.
    QTcpSocket *release();

signals:
    /// The request has arrived; somebody answers it, now or later.
    void requested(const Request &request);
    /// There is nothing more to be done; the receiver deletes the connection later.
    void finished();

private:
    void read();
    void giveUp();
    void closeAfterAnswer();
    void finish();

    QTcpSocket *m_socket;
    std::unique_ptr<RequestReader> m_reader;
    QTimer m_patience;
    bool m_withBody = true;
    bool m_answered = false;
    bool m_finished = false;
};
