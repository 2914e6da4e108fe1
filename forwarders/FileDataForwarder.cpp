#include "forwarders/FileDataForwarder.h"

#include "protocol/Frame.h"

#include <QDebug>
#include <QTextStream>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

namespace {

constexpr auto openMode = QIODevice::WriteOnly | QIODevice::Text | QIODevice::Unbuffered;

/// Whether the path names a pipe or a device, where opening and writing may wait for somebody else.
bool isSpecialFile(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && !S_ISREG(status.st_mode);
}

QByteArray encodedLine(const char *prefix, const QByteArray &line)
{
    QByteArray encoded;
    QTextStream stream(&encoded);
    stream.setCodec("UTF-8");
    stream << prefix << Frame::wrapped(line) << "\n";
    stream.flush();
    return encoded;
}

} // namespace

FileDataForwarder::FileDataForwarder(QObject *parent, int id) : DataForwarder(parent, id)
{
    setStatus(DataForwarderConfig::Idle);
    m_target = configuration().target;
    m_file.reset(new QFile(m_target));
    if (!m_target.isEmpty() && (isSpecialFile(m_target) ? openWithoutWaiting() : m_file->open(openMode))) {
        setStatus(DataForwarderConfig::Working);
        return;
    }
    setStatus(DataForwarderConfig::Failed);
    qInfo() << "erreur lors de l'ouverture du fichier de logs";
}

bool FileDataForwarder::openWithoutWaiting()
{
    const int descriptor =
        ::open(QFile::encodeName(m_target).constData(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    return descriptor != -1 && m_file->open(descriptor, openMode, QFile::AutoCloseHandle);
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
    if (!m_file->isOpen() && isSpecialFile(m_target)) // somebody may read it by now
        openWithoutWaiting();
    // A file that could not be opened swallows its lines and counts as working all the same, on purpose.
    if (m_file->isOpen())
        m_writeFailed = !((m_rest.isEmpty() || write(m_rest)) && write(encodedLine(prefix, line)));
    setStatus(m_writeFailed ? DataForwarderConfig::Failed : DataForwarderConfig::Working);
}

/// Hands the bytes to the operating system; false when it has not taken all of them.
bool FileDataForwarder::write(const QByteArray &bytes)
{
    const qint64 start = m_file->pos();
    const qint64 taken = m_file->write(bytes);
    if (taken == bytes.size()) {
        m_rest.clear();
        return true;
    }
    if (!m_writeFailed)
        logFailedWrite(taken > 0);
    // The next line must not be glued to a part of this one.
    if (!m_file->isSequential()) {
        m_file->resize(start);
        m_file->seek(start);
    } else if (taken > 0) {
        m_rest = bytes.mid(int(taken));
    }
    closeWithoutReader();
    return false;
}

void FileDataForwarder::logFailedWrite(bool takenInPart) const
{
    // A disk that took only the beginning of the line reports no error of its own.
    qInfo() << "Cannot write to" << m_target << ":"
            << (takenInPart ? QStringLiteral("the line was taken only in part") : m_file->errorString());
}

/// A pipe whose reader has left is opened anew, as it may have been replaced; what nobody has read is gone.
void FileDataForwarder::closeWithoutReader()
{
    pollfd state = {m_file->handle(), POLLOUT, 0};
    if (::poll(&state, 1, 0) != 1 || (state.revents & POLLERR) == 0)
        return;
    m_file->close();
    m_rest.clear();
}
