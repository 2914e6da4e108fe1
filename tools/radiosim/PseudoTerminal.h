#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

/// The master end of a pseudo-terminal whose slave stands in for a serial device: raw, without echo.
/// Nothing here blocks.
class PseudoTerminal
{
public:
    PseudoTerminal() = default;
    ~PseudoTerminal();
    Q_DISABLE_COPY_MOVE(PseudoTerminal)

    /// Makes a new pseudo-terminal; false and errorString() when the system has none left.
    bool open();
    /// Whoever has the slave open sees its device vanish.
    void close();
    bool isOpen() const { return m_descriptor >= 0; }
    QString errorString() const { return m_errorString; }

    int descriptor() const { return m_descriptor; }
    /// Such as "/dev/pts/3"; empty while closed.
    QString slavePath() const { return m_slavePath; }

    /// Whether some process has the slave open.
    bool hasListener() const;
    /// Speed that the other side has set, in bit/s; 0 when it is none of knownSpeeds().
    int lineSpeed() const;
    /// Bit rates that a serial port knows by name, ascending.
    static QVector<int> knownSpeeds();

    /// What has arrived from the slave, at most 4096 bytes at once.
    QByteArray read() const;
    /// Returns how many bytes the system took, 0 when it takes none at the moment.
    int write(const QByteArray &bytes) const;
    /// Takes back what was written and not read by the other side.
    void discardUnread() const;

private:
    bool prepareSlave();
    bool fail(const char *what);

    int m_descriptor = -1;
    QString m_slavePath;
    QString m_errorString;
};
