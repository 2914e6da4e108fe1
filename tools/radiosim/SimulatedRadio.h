#pragma once

#include "tools/radiosim/PseudoTerminal.h"

#include <QByteArrayList>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

class QSocketNotifier;

/// What one simulated radio is. The texts are what follows the keyword in the radio's answers.
struct RadioSettings
{
    int baud = 19200; ///< bit/s, one of PseudoTerminal::knownSpeeds()
    QString esn = QStringLiteral("28940001");
    QString comment1;
    QString comment2;
    QString dsp = QStringLiteral("1.02,DSP"); ///< or "NG"
    QString firmware = QStringLiteral("1.0,$AB12,SIM");
    QString front = QStringLiteral("1.00,FRONT"); ///< or "NG"
    bool lineRate = false; ///< bytes leave no faster than baud / 10 per second
    bool answers = true; ///< false: a mute radio, which hears and is sent lines but never answers
};

/// A radio at the end of a serial cable. The cable is a pseudo-terminal: whoever opens slavePath() finds a
/// raw serial device there.
///
/// As on a real wire, the radio and the other side understand each other only when both have the same speed:
/// otherwise every byte arrives as noise, which never holds 0x02 or 0x03, and a line that it is sent is
/// answered with a few bytes of noise. What it says while nobody has the device open is lost.
///
/// Everything runs in the event loop, nothing blocks. A slot may unplug the radio; delete it with
/// deleteLater().
class SimulatedRadio : public QObject
{
    Q_OBJECT

public:
    explicit SimulatedRadio(const RadioSettings &settings, QObject *parent = nullptr);
    ~SimulatedRadio() override;

    /// Opens a new pseudo-terminal and makes the link; false and errorString() on failure.
    bool plugIn();
    /// The other side sees the device vanish; the link is removed.
    void unplug();
    bool isPlugged() const { return m_terminal.isOpen(); }

    /// Such as "/dev/pts/3"; empty while unplugged.
    QString slavePath() const { return m_terminal.slavePath(); }
    /// The path as a serial port's name, such as "pts/3"; empty while unplugged.
    QString portName() const;

    /// Keeps a symbolic link to the slave at `path` whenever the radio is plugged; an empty path ends that.
    /// A link that stands there is replaced; anything else is an error: false and errorString().
    bool setLink(const QString &path);
    QString link() const { return m_link; }
    QString errorString() const { return m_errorString; }

    const RadioSettings &settings() const { return m_settings; }
    /// Changes the speed of the radio's own end, in bit/s.
    void setBaud(int baud);
    /// Speed that the other side has set, in bit/s; 0 when unplugged or at an unusual speed.
    int lineSpeed() const;

    /// Passes on one line heard over the air, as 0x02 line 0x03. False when it is lost: nobody has the device
    /// open, or a slow reader has left 256 KiB behind.
    bool hear(const QByteArray &line);
    /// Like hear(), with the bytes as they are: half a frame, noise, several frames.
    bool send(const QByteArray &rawBytes);

    /// Every line that it was sent at its own speed, without 0x02 and 0x03, in order.
    QByteArrayList received() const { return m_received; }
    /// The last text that was put on its display.
    QString displayText() const { return m_displayText; }

signals:
    /// Comes before the answer goes out.
    void lineReceived(const QByteArray &line);
    void displayChanged(const QString &text);

private:
    void receive();
    void takeBytes(const QByteArray &bytes);
    void takeLine(const QByteArray &line);
    QByteArray answerTo(const QByteArray &line) const;

    void transmit();
    int bytesAllowedNow();
    bool updateListener();

    bool makeLink();
    void removeLink();
    bool fail(const QString &error);

    RadioSettings m_settings;
    PseudoTerminal m_terminal;
    QSocketNotifier *m_notifier = nullptr;
    bool m_hasListener = false;
    QTimer m_listenerTimer; ///< looks for a listener while there is none
    QTimer m_transmitTimer; ///< goes on with m_outgoing

    QByteArray m_incoming;
    QByteArray m_outgoing;
    QElapsedTimer m_clock;
    qint64 m_wireFreeAt = 0; ///< ns on m_clock; with lineRate, when the last byte has left

    QString m_link;
    QString m_errorString;
    QByteArrayList m_received;
    QString m_displayText;
};
