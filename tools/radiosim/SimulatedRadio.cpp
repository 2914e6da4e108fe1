#include "tools/radiosim/SimulatedRadio.h"

#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <limits>
#include <unistd.h>

namespace {

constexpr char stx = '\x02';
constexpr char etx = '\x03';
constexpr int maxOutgoing = 256 * 1024; // bytes
constexpr int maxIncoming = 64 * 1024; // bytes
constexpr int listenerIntervalMs = 20;
constexpr int transmitIntervalMs = 5;
constexpr qint64 maxLineRateLagNs = 100'000'000; // a late timer catches up no more than this

const QByteArray displayCommand = QByteArrayLiteral("*SET,UI,TEXT,");

struct Answer
{
    const char *query;
    const char *keyword;
    QString RadioSettings::*text;
};

constexpr std::array answers{
    Answer{"*GET,INFO,ESN", "*NTF,INFO,ESN,", &RadioSettings::esn},
    Answer{"*GET,INFO,COMMENT,1", "*NTF,INFO,COMMENT,", &RadioSettings::comment1},
    Answer{"*GET,INFO,COMMENT,2", "*NTF,INFO,COMMENT,", &RadioSettings::comment2},
    Answer{"*GET,INFO,DREV", "*NTF,INFO,DREV,", &RadioSettings::dsp},
    Answer{"*GET,INFO,REV", "*NTF,INFO,REV,", &RadioSettings::firmware},
    Answer{"*GET,INFO,FREV", "*NTF,INFO,FREV,", &RadioSettings::front},
};

/// The bytes as an UART at another speed reads them: runs of equal bits, none of them a frame's delimiter.
QByteArray noise(QByteArray bytes)
{
    static constexpr std::array<uchar, 16> runs{
        0x00, 0x80, 0xc0, 0xe0, 0xf0, 0xf8, 0xfc, 0xfe, 0xff, 0x78, 0x98, 0x1e, 0x66, 0x86, 0xe6, 0x9e};
    for (char &byte : bytes)
        byte = char(runs[uchar(byte) % runs.size()]);
    return bytes;
}

} // namespace

SimulatedRadio::SimulatedRadio(const RadioSettings &settings, QObject *parent)
    : QObject(parent), m_settings(settings)
{
    m_clock.start();
    m_listenerTimer.setInterval(listenerIntervalMs);
    connect(&m_listenerTimer, &QTimer::timeout, this, &SimulatedRadio::receive);
    m_transmitTimer.setSingleShot(true);
    m_transmitTimer.setTimerType(Qt::PreciseTimer);
    m_transmitTimer.setInterval(transmitIntervalMs);
    connect(&m_transmitTimer, &QTimer::timeout, this, &SimulatedRadio::transmit);
}

SimulatedRadio::~SimulatedRadio()
{
    unplug();
}

bool SimulatedRadio::plugIn()
{
    if (isPlugged())
        return true;
    if (!m_terminal.open())
        return fail(m_terminal.errorString());
    if (!makeLink()) {
        m_terminal.close();
        return false;
    }
    m_notifier = new QSocketNotifier(m_terminal.descriptor(), QSocketNotifier::Read, this);
    m_notifier->setEnabled(false);
    connect(m_notifier, &QSocketNotifier::activated, this, &SimulatedRadio::receive);
    m_hasListener = false;
    m_listenerTimer.start();
    return true;
}

void SimulatedRadio::unplug()
{
    if (!isPlugged())
        return;
    m_listenerTimer.stop();
    m_transmitTimer.stop();
    m_notifier->setEnabled(false);
    m_notifier->deleteLater(); // this may run inside its own signal
    m_notifier = nullptr;
    m_incoming.clear();
    m_outgoing.clear();
    removeLink();
    m_terminal.close();
}

QString SimulatedRadio::portName() const
{
    return slavePath().mid(int(qstrlen("/dev/")));
}

bool SimulatedRadio::setLink(const QString &path)
{
    removeLink();
    m_link.clear();
    const QFileInfo file(path);
    if (file.exists() && !file.isSymLink())
        return fail(QStringLiteral("%1 exists and is not a symbolic link").arg(path));
    m_link = path;
    return !isPlugged() || makeLink();
}

void SimulatedRadio::setBaud(int baud)
{
    m_settings.baud = baud;
}

int SimulatedRadio::lineSpeed() const
{
    return isPlugged() ? m_terminal.lineSpeed() : 0;
}

bool SimulatedRadio::hear(const QByteArray &line)
{
    return send(stx + line + etx);
}

bool SimulatedRadio::send(const QByteArray &rawBytes)
{
    if (!isPlugged() || !updateListener() || m_outgoing.size() + rawBytes.size() > maxOutgoing)
        return false;
    if (m_outgoing.isEmpty())
        m_wireFreeAt = qMax(m_wireFreeAt, m_clock.nsecsElapsed());
    m_outgoing += rawBytes;
    if (!m_transmitTimer.isActive())
        transmit();
    return true;
}

/// Reads also when nobody listens any more: what was written before the device was closed has still arrived.
void SimulatedRadio::receive()
{
    const QByteArray bytes = m_terminal.read();
    if (!bytes.isEmpty())
        takeBytes(bytes);
    if (isPlugged())
        updateListener();
}

void SimulatedRadio::takeBytes(const QByteArray &bytes)
{
    if (lineSpeed() != m_settings.baud) {
        m_incoming.clear();
        if (m_settings.answers)
            send(noise(bytes.left(3)));
        return;
    }
    m_incoming += bytes;
    for (int end = m_incoming.indexOf(etx); end >= 0; end = m_incoming.indexOf(etx)) {
        const QByteArray beforeEnd = m_incoming.left(end);
        m_incoming.remove(0, end + 1);
        const int start = beforeEnd.lastIndexOf(stx);
        if (start >= 0)
            takeLine(beforeEnd.mid(start + 1));
    }
    if (m_incoming.size() > maxIncoming)
        m_incoming.clear();
}

void SimulatedRadio::takeLine(const QByteArray &line)
{
    m_received.append(line);
    emit lineReceived(line);
    if (line.startsWith(displayCommand)) {
        m_displayText = QString::fromUtf8(line.mid(displayCommand.size()));
        emit displayChanged(m_displayText);
    }
    const QByteArray answer = answerTo(line);
    if (m_settings.answers && !answer.isEmpty())
        hear(answer);
}

QByteArray SimulatedRadio::answerTo(const QByteArray &line) const
{
    for (const Answer &answer : answers) {
        if (line == answer.query)
            return answer.keyword + (m_settings.*answer.text).toUtf8();
    }
    return QByteArray();
}

void SimulatedRadio::transmit()
{
    if (!updateListener())
        return;
    const QByteArray bytes = m_outgoing.left(bytesAllowedNow());
    const int sent = m_terminal.write(m_terminal.lineSpeed() == m_settings.baud ? bytes : noise(bytes));
    m_outgoing.remove(0, sent);
    m_wireFreeAt += sent * (10'000'000'000 / m_settings.baud);
    if (!m_outgoing.isEmpty())
        m_transmitTimer.start();
}

int SimulatedRadio::bytesAllowedNow()
{
    if (!m_settings.lineRate)
        return std::numeric_limits<int>::max();
    const qint64 now = m_clock.nsecsElapsed();
    m_wireFreeAt = qMax(m_wireFreeAt, now - maxLineRateLagNs);
    return int(qMax(qint64(0), (now - m_wireFreeAt) * m_settings.baud / 10'000'000'000));
}

/// A hung-up master would wake the event loop for ever, so its notifier rests while nobody listens.
bool SimulatedRadio::updateListener()
{
    const bool hasListener = m_terminal.hasListener();
    if (hasListener == m_hasListener)
        return hasListener;
    m_hasListener = hasListener;
    m_notifier->setEnabled(hasListener);
    if (hasListener) {
        m_listenerTimer.stop();
        return true;
    }
    m_listenerTimer.start();
    m_transmitTimer.stop();
    m_incoming.clear();
    m_outgoing.clear();
    m_terminal.discardUnread();
    return false;
}

bool SimulatedRadio::makeLink()
{
    if (m_link.isEmpty())
        return true;
    const QByteArray path = QFile::encodeName(m_link);
    if (QFileInfo(m_link).isSymLink())
        ::unlink(path.constData());
    if (::symlink(QFile::encodeName(slavePath()).constData(), path.constData()) != 0)
        return fail(QStringLiteral("link %1: %2").arg(m_link, qt_error_string(errno)));
    return true;
}

/// Another radio may have taken the link over: its link stays.
void SimulatedRadio::removeLink()
{
    if (isPlugged() && !m_link.isEmpty() && QFile::symLinkTarget(m_link) == slavePath())
        QFile::remove(m_link);
}

bool SimulatedRadio::fail(const QString &error)
{
    m_errorString = error;
    return false;
}
