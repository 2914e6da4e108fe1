#include "forwarders/FileDataForwarder.h"

#include "protocol/Frame.h"

#include <QDebug>
#include <QTextStream>

#include <sys/stat.h>

bool isNamedPipe(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && S_ISFIFO(status.st_mode);
}

FileDataForwarder::FileDataForwarder(QObject *parent, int id) : DataForwarder(parent, id)
{
    setStatus(DataForwarderConfig::Idle);
    const QString target = configuration().target;
    m_file.reset(new QFile(target));
    if (!target.isEmpty() && !isNamedPipe(target)
        && m_file->open(QIODevice::WriteOnly | QIODevice::Text | QIODevice::Unbuffered)) {
        setStatus(DataForwarderConfig::Working);
        return;
    }
    setStatus(DataForwarderConfig::Failed);
    qInfo() << "erreur lors de l'ouverture du fichier de logs";
}

void FileDataForwarder::forward(QSharedPointer<IcomCommandResponse> resp)
{
    writeLine("READ: ", resp->data());
}

void FileDataForwarder::forwardSent(QSharedPointer<IcomCommand> command)
{
    writeLine("WRITE: ", command->commandText().toUtf8());
}

void FileDataForwarder::writeLine(const char *prefix, const QByteArray &line)
{
    // A file that could not be opened swallows its lines and counts as working all the same, on purpose.
    const qint64 start = m_file->pos();
    const bool failed = m_file->isOpen() && !appendLine(prefix, line);
    if (failed && !m_writeFailed)
        logFailedWrite();
    if (failed)
        cutBackTo(start);
    m_writeFailed = failed;
    setStatus(failed ? DataForwarderConfig::Failed : DataForwarderConfig::Working);
}

void FileDataForwarder::logFailedWrite() const
{
    // A disk that took only the beginning of the line reports no error of its own.
    const bool hasReason = m_file->error() != QFileDevice::NoError;
    qInfo() << "Cannot write to" << m_file->fileName() << ":"
            << (hasReason ? m_file->errorString() : QStringLiteral("the line was taken only in part"));
}

bool FileDataForwarder::appendLine(const char *prefix, const QByteArray &line)
{
    QTextStream stream(m_file.data());
    stream.setCodec("UTF-8");
    stream << prefix << Frame::wrapped(line) << "\n";
    stream.flush();
    return stream.status() == QTextStream::Ok;
}

void FileDataForwarder::cutBackTo(qint64 size)
{
    // A full disk may have taken part of a line: the next one must not be glued to it.
    if (m_file->isSequential())
        return;
    m_file->resize(size);
    m_file->seek(size);
}
