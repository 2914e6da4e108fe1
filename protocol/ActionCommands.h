#pragma once

#include "protocol/IcomCommand.h"

// Commands that act on a radio instead of asking it something. None expects an answer, and any frame that
// arrives while one waits at the head of the queue is taken as one, on purpose.

/// Shows a text on the radio's display. A text of up to 12 characters is cleared after `delayMs`; a longer
/// one moves on by five characters each time until it is that short. "<port>" and "<name>" stand for the
/// radio's own.
class DisplayTextCommand : public IcomCommand
{
    Q_OBJECT

public:
    /// How long a text stays on a display, in ms.
    static constexpr int defaultDelay = 5000;

    DisplayTextCommand(QObject *parent, const QString &text, int delayMs);

    QString commandText() override;
    bool execute(MyQSerialPort *port) override;
    bool validResponse(const QByteArray &) override { return true; }

private:
    void queueFollowUp();

    QString m_text;
    const int m_delayMs;
};

/// A command that is announced and logged, but never written to the port: a dry run, on purpose.
class KillCommand : public IcomCommand
{
    Q_OBJECT

public:
    explicit KillCommand(QObject *parent);

    bool execute(MyQSerialPort *port) override;
    bool validResponse(const QByteArray &) override { return true; }
};

/// Kills an analogue radio by its 5-tone code.
class AnalogKillCommand : public KillCommand
{
    Q_OBJECT

public:
    AnalogKillCommand(QObject *parent, const QString &code);

    /// Appends "DC" to the code, at every call, on purpose.
    QString commandText() override;
    QString announcedText() override;

private:
    QString m_code;
    const QString m_announcedCode;
};

/// Kills a dPMR radio by its id.
class DpmrKillCommand : public KillCommand
{
    Q_OBJECT

public:
    DpmrKillCommand(QObject *parent, const QString &radioId);

    QString commandText() override;

private:
    const QString m_radioId;
};
