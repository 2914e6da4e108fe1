#pragma once

#include "forwarders/DataForwarder.h"

#include <QFile>

/// Whether the path names a pipe: writing there would block the daemon until somebody reads.
bool isNamedPipe(const QString &path);

/// The "FILE" output: every frame and command as one line of a text file, which is truncated at every start.
/// Each line is handed to the operating system at once.
class FileDataForwarder : public DataForwarder
{
    Q_OBJECT

public:
    FileDataForwarder(QObject *parent, int id);

public slots:
    void forward(QSharedPointer<IcomCommandResponse> resp) override;
    void forwardSent(QSharedPointer<IcomCommand> command) override;

private:
    void writeLine(const char *prefix, const QByteArray &line);
    bool appendLine(const char *prefix, const QByteArray &line);
    void logFailedWrite() const;
    void cutBackTo(qint64 size);

    QScopedPointer<QFile> m_file;
    bool m_writeFailed = false;
};
