#pragma once

#include "tools/quillonctl/StreamTarget.h"

#include <QByteArray>

/// Joins the stream of a daemon and takes in its lines, for a command that blocks. Waits for a daemon that is
/// not there yet, joins again when the stream ends, and says so on standard error.
class StreamReader
{
public:
    explicit StreamReader(const StreamTarget &target) : m_target(target) { }
    ~StreamReader();
    Q_DISABLE_COPY(StreamReader)

    /// Waits for the next line and takes it without its end; false when nobody reads standard output any
    /// more. Throws CommandError when this user may not join, or when what is there is no stream.
    bool readLine(QByteArray *line);

private:
    void join();
    void handleFailure(int error);
    void readMore();
    void leave(const QString &reason);
    void say(const QString &text);

    const StreamTarget m_target;
    int m_descriptor = -1;
    QByteArray m_buffer;
    int m_searched = 0; // bytes of the buffer that hold no end of a line
    QString m_said; // while it is not joined
    bool m_wasJoined = false;
};
