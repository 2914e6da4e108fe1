#include "tools/quillonctl/PasswordFile.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/InputChecks.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int saltSize = 16;
const int hashSize = 32;
const int minimumLength = 8;
const int maximumLength = 200;
const quint64 maximumMemory = 67108864;

/// The cost of a hash: N, r and p of RFC 7914.
struct Cost
{
    quint64 n;
    quint64 r;
    quint64 p;
};

const Cost currentCost = {16384, 8, 1};

struct StoredHash
{
    Cost cost;
    QByteArray salt;
    QByteArray hash;
};

/// Empty when the cost is out of bounds or memory is short.
QByteArray scrypt(const QByteArray &password, const QByteArray &salt, const Cost &cost)
{
    QByteArray hash(hashSize, '\0');
    const int done = EVP_PBE_scrypt(password.constData(), size_t(password.size()),
        reinterpret_cast<const unsigned char *>(salt.constData()), size_t(salt.size()), cost.n, cost.r,
        cost.p, maximumMemory, reinterpret_cast<unsigned char *>(hash.data()), size_t(hash.size()));
    return done == 1 ? hash : QByteArray();
}

QByteArray lineOf(const StoredHash &stored)
{
    return QByteArrayList{"scrypt", QByteArray::number(stored.cost.n), QByteArray::number(stored.cost.r),
               QByteArray::number(stored.cost.p), stored.salt.toBase64(), stored.hash.toBase64()}
               .join('$')
        + '\n';
}

/// A hash whose salt is empty when the line is none.
StoredHash fromLine(const QByteArray &line)
{
    const QByteArrayList parts = line.trimmed().split('$');
    if (parts.size() != 6 || parts.at(0) != "scrypt")
        return {};
    const StoredHash stored{{parts.at(1).toULongLong(), parts.at(2).toULongLong(), parts.at(3).toULongLong()},
        QByteArray::fromBase64(parts.at(4)), QByteArray::fromBase64(parts.at(5))};
    return stored.hash.size() == hashSize ? stored : StoredHash{};
}

StoredHash readHash(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? fromLine(file.read(1024)) : StoredHash{};
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
    StoredHash stored{currentCost, QByteArray(saltSize, '\0'), {}};
    if (RAND_bytes(reinterpret_cast<unsigned char *>(stored.salt.data()), saltSize) == 1)
        stored.hash = scrypt(password, stored.salt, stored.cost);
    if (stored.hash.isEmpty())
        throw CommandError(QStringLiteral("OpenSSL cannot hash the password"));
    // A QSaveFile would be open to others at first: it begins with the mode of the file that it replaces.
    QTemporaryFile file(m_path + QStringLiteral(".XXXXXX"));
    if (!file.open())
        throw unwritable(m_path, file.errorString());
    giveToOwnerOf(m_configFile, file.handle());
    const QByteArray line = lineOf(stored);
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
    if (readHash(m_path).salt.isEmpty())
        return QStringLiteral("%1 holds no password that can be read").arg(m_path);
    return {};
}

bool PasswordFile::matches(const QByteArray &password) const
{
    if (!problem().isEmpty())
        return false;
    const StoredHash stored = readHash(m_path);
    const QByteArray hash = scrypt(password, stored.salt, stored.cost);
    return hash.size() == stored.hash.size()
        && CRYPTO_memcmp(hash.constData(), stored.hash.constData(), size_t(hash.size())) == 0;
}

QByteArray checkedPassword(const QByteArray &password)
{
    checkedText(password.toStdString(), QStringLiteral("a password"), maximumLength);
    if (QString::fromUtf8(password).size() < minimumLength)
        throw CommandError(QStringLiteral("a password has at least %1 characters").arg(minimumLength));
    return password;
}
