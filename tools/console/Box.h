#pragma once

#include "tools/console/Check.h"
#include "tools/console/FileState.h"
#include "tools/console/History.h"
#include "tools/console/StreamClient.h"

#include <QThreadPool>

/// What is known of the gateway: what its file says, what its stream tells, and what a check has found. The
/// file is looked at while somebody watches or the stream is not there, and else rests.
class Box : public QObject
{
    Q_OBJECT

public:
    /// Files are read on threads of the pool.
    Box(const QString &configFile, QThreadPool &pool, QObject *parent = nullptr);

    /// Reads the file and joins the stream.
    void start();
    void setWatched(bool watched);
    /// Reads the file again, in a moment: somebody has changed it, or should have.
    void readSoon();

    Check &check() { return m_check; }

    const History &history() const { return m_history; }
    const FileState &file() const { return m_file; }
    /// All that GET /api/state shows but the session.
    QJsonObject state(const FileState::Snapshot &file) const;

signals:
    void stateChanged(const QJsonObject &state);
    void recorded();

private:
    void look();
    void readFile();
    void take(const FileState::Snapshot &file);
    void receive(const QByteArray &line, const QJsonObject &record);
    QJsonArray allFindings(const FileState::Snapshot &file) const;

    QThreadPool &m_pool;
    const FileState m_file;
    Check m_check;
    History m_history;
    StreamClient m_stream;
    QJsonObject m_gateway; ///< its record, of the last time that the stream was joined
    FileState::Snapshot m_snapshot;
    QString m_stamp;
    QTimer m_lookTimer;
    QTimer m_readTimer;
    QTimer m_checkTimer;
    QTimer m_changeTimer;
    bool m_watched = false;
    bool m_reading = false;
};
