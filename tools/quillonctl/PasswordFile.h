#pragma once

#include <QByteArray>
#include <QString>

/// The console's password: a salted scrypt hash (RFC 7914) in a file of its own beside the configuration,
/// mode 0600. A line as crypt(5) has it, "$7$", cost and salt, "$" and the hash.
class PasswordFile
{
public:
    explicit PasswordFile(const QString &configFile);

    QString path() const { return m_path; }
    bool exists() const;
    /// Replaces the file as a whole; one that root writes belongs to whom the configuration belongs to.
    /// Throws CommandError.
    void store(const QByteArray &password) const;
    /// Whether this is the password. Takes a tenth of a second and 16 MiB. False, too, when the file is
    /// missing, damaged, or readable to others.
    bool matches(const QByteArray &password) const;
    /// What keeps the file from being used; empty when nothing does.
    QString problem() const;

private:
    const QString m_configFile;
    const QString m_path;
};

/// Whether two secrets are the same, in a time that tells nothing about where they differ.
bool sameSecret(const QByteArray &a, const QByteArray &b);

/// The password, when it has a length that is taken; throws CommandError otherwise.
QByteArray checkedPassword(const QByteArray &password);
