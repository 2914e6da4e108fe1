#pragma once

#include "forwarders/DataForwarder.h"

#include <QFile>

/// The "FILE" output: every frame and command as one line of a text file, which is truncated at every start.
/// Each line is handed to the operating system at once.
/// A named pipe or a device works as well and never blocks: a line that it does not take is a failed write. A
/// pipe without a reader cannot be opened (fifo(7)); that is tried again with each line.
class FileDataForwarder : public DataForwarder
{
    Q_OBJECT

public:
    FileDataForwarder(QObject *parent, int id);

public slots:
    void forward(QSharedPointer<IcomCommandResponse> resp) override;
    void forwardSent(QSharedPointer<IcomCommand> command) override;

private:
    bool openWithoutWaiting();
    void writeLine(const char *prefix, const QByteArray &line);
    bool write(const QByteArray &bytes);
    void logFailedWrite(bool takenInPart) const;
    void closeWithoutReader();

    QString m_target;
    QScopedPointer<QFile> m_file;
    QByteArray m_rest; // of a line that a pipe or device took only in part
    bool m_writeFailed = false;
};
