#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <QVector>

#include <optional>

/// What a radio hears over the air, and when: a text file, played through the event loop.
///
/// One step a line, "DELAY_MS TEXT": so many milliseconds after the step before (or the start), the bytes
/// 0x02 TEXT 0x03. "DELAY_MS !BYTES" stands for the bytes alone, such as half a frame. Both may hold the
/// escapes of unescapeBytes(); blanks around them do not count. Blank lines and lines that begin with '#' are
/// skipped.
class RadioScript : public QObject
{
    Q_OBJECT

public:
    struct Step
    {
        int delayMs;
        QByteArray bytes; ///< as they go over the wire
    };

    explicit RadioScript(QObject *parent = nullptr);

    /// Both replace the steps; false, errorString() as "file:line: what" and no steps at all on a bad line.
    bool load(const QString &path);
    bool parse(const QByteArray &content, const QString &name);
    QString errorString() const { return m_errorString; }
    QVector<Step> steps() const { return m_steps; }

    /// The bytes for one text of a step: framed, or bare after '!'.
    static std::optional<QByteArray> wireBytes(const QByteArray &text, QString *error);

    /// Plays the steps from the first one.
    void start();

signals:
    void due(const QByteArray &bytes);
    void finished();

private:
    QString parseStep(const QByteArray &line);
    void playStep();
    void waitForStep();

    QVector<Step> m_steps;
    QString m_errorString;
    QTimer m_timer;
    QElapsedTimer m_clock;
    int m_next = 0;
    qint64 m_dueAt = 0; ///< ms on m_clock
};
