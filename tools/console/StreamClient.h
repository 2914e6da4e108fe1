#pragma once

#include "tools/quillonctl/StreamTarget.h"

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

#include <memory>

class QIODevice;

/// Joins the daemon's STREAM output and passes on its records; joins again every 2 s when there is none.
class StreamClient : public QObject
{
    Q_OBJECT

public:
    explicit StreamClient(QObject *parent = nullptr);
    ~StreamClient() override;

    /// Where the stream is; an empty one stands for nowhere.
    void setTarget(const StreamTarget &target);
    bool isJoined() const { return m_joined; }

signals:
    void joined();
    void lost();
    /// A record, as the line that came without its end, and parsed.
    void received(const QByteArray &line, const QJsonObject &record);

private:
    void join();
    void handleJoined();
    void leave();
    void read();

    StreamTarget m_target;
    std::unique_ptr<QIODevice> m_socket;
    QByteArray m_buffer;
    QTimer m_retry;
    bool m_joined = false;
    bool m_skipping = false; ///< the rest of a line that is too long
};
