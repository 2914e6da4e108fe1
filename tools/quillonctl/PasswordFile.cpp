#include "tools/quillonctl/PasswordFile.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryFile>

#include <crypt.h>
#include <cstdio>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int minimumLength = 8;
const int maximumLength = 200;
const int saltWords = 4;
/// N 16384, r 8 and p 1 of RFC 7914, as crypt(5) writes them.
const QByteArray currentCost = "$7$C6..../....";
const int hashLength = 80; ///< with the cost, a salt of 22 digits, "$" and 43 digits

/// A salt in the digits of crypt(5).
QByteArray newSalt()
{
    quint32 words[saltWords];
    QRandomGenerator::system()->fillRange(words);
    return QByteArray(reinterpret_cast<const char *>(words), sizeof words)
        .toBase64(QByteArray::OmitTrailingEquals)
        .replace('+', '.');
}

/// The hash with the cost and the salt of `setting`, which begins with them and may be a hash; empty when
/// there can be none.
QByteArray scrypt(const QByteArray &password, const QByteArray &setting)
{
    if (password.contains('\0'))
        return {};
    const auto memory = std::make_unique<crypt_data>();
    return QByteArray(crypt_rn(password.constData(), setting.constData(), memory.get(), sizeof *memory));
}

/// Empty when there is none of our cost, whole: another one could take any time and memory.
QByteArray readHash(const QString &path)
{
    QFile file(path);
    const QByteArray hash = file.open(QIODevice::ReadOnly) ? file.read(1024).trimmed() : QByteArray();
    return hash.startsWith(currentCost) && hash.size() == hashLength ? hash : QByteArray();
}

CommandError unwritable(const QString &path, const QString &reason)
{
    return CommandError(QStringLiteral("%1 cannot be written: %2").arg(path, reason));
}

void giveToOwnerOf(const QString &configFile, int descriptor)
{
    struct stat status = {};
    if (geteuid() != 0 || stat(QFile::encodeName(configFile).constData(), &status) != 0)
        return;
    if (fchown(descriptor, status.st_uid, status.st_gid) != 0)
        throw CommandError(
            QStringLiteral("the password file cannot be given to the owner of %1").arg(configFile));
}

} // namespace

PasswordFile::PasswordFile(const QString &configFile)
    : m_configFile(configFile), m_path(configFile + QStringLiteral(".console-password"))
{
}

bool PasswordFile::exists() const
{
    return QFileInfo::exists(m_path);
}

void PasswordFile::store(const QByteArray &password) const
{
    const QByteArray hash = scrypt(password, currentCost + newSalt());
    if (hash.isEmpty())
        throw CommandError(QStringLiteral("the password cannot be hashed: %1").arg(qt_error_string()));
    // A QSaveFile would be open to others at first: it begins with the mode of the file that it replaces.
    QTemporaryFile file(m_path + QStringLiteral(".XXXXXX"));
    if (!file.open())
        throw unwritable(m_path, file.errorString());
    giveToOwnerOf(m_configFile, file.handle());
    const QByteArray line = hash + '\n';
    if (file.write(line) != line.size() || !file.flush())
        throw unwritable(m_path, file.errorString());
    const QByteArray from = QFile::encodeName(file.fileName());
    if (fsync(file.handle()) != 0
        || std::rename(from.constData(), QFile::encodeName(m_path).constData()) != 0)
        throw unwritable(m_path, qt_error_string());
    file.setAutoRemove(false);
}

QString PasswordFile::problem() const
{
    struct stat status = {};
    if (stat(QFile::encodeName(m_path).constData(), &status) != 0)
        return QStringLiteral("%1 does not exist").arg(m_path);
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return QStringLiteral("%1 is open to others: chmod 600 it").arg(m_path);
    if (readHash(m_path).isEmpty())
        return QStringLiteral("%1 holds no password that can be read: set it anew with quillonctl console "
                              "password")
            .arg(m_path);
    return {};
}

bool PasswordFile::matches(const QByteArray &password) const
{
    if (!problem().isEmpty())
        return false;
    const QByteArray stored = readHash(m_path);
    const QByteArray hash = scrypt(password, stored);
    return !hash.isEmpty() && sameSecret(hash, stored);
}

bool sameSecret(const QByteArray &a, const QByteArray &b)
{
    quint8 difference = a.size() == b.size() ? 0 : 1;
    for (int i = 0; i < qMin(a.size(), b.size()); ++i)
        difference = quint8(difference | quint8(a.at(i) ^ b.at(i)));
    return difference == 0;
}

QByteArray checkedPassword(const QByteArray &password)
{
    checkedText(password.toStdString(), QStringLiteral("a password"), maximumLength);
    if (password.size() >= CRYPT_MAX_PASSPHRASE_SIZE)
        throw CommandError(
            QStringLiteral("a password must have less than %1 bytes").arg(CRYPT_MAX_PASSPHRASE_SIZE));
    if (QString::fromUtf8(password).size() < minimumLength)
        throw CommandError(QStringLiteral("a password has at least %1 characters").arg(minimumLength));
    return password;
}
