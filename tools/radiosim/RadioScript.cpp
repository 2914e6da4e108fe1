#include "tools/radiosim/RadioScript.h"

#include "tools/radiosim/ByteEscapes.h"

#include <QFile>

RadioScript::RadioScript(QObject *parent) : QObject(parent)
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &RadioScript::playStep);
}

bool RadioScript::load(const QString &path)
{
    QFile file(path);
    m_steps.clear();
    if (!file.open(QIODevice::ReadOnly)) {
        m_errorString = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    return parse(file.readAll(), path);
}

bool RadioScript::parse(const QByteArray &content, const QString &name)
{
    m_steps.clear();
    int number = 0;
    for (const QByteArray &line : content.split('\n')) {
        ++number;
        const QByteArray step = line.trimmed();
        if (step.isEmpty() || step.startsWith('#'))
            continue;
        const QString error = parseStep(step);
        if (!error.isEmpty()) {
            m_steps.clear();
            m_errorString = QStringLiteral("%1:%2: %3").arg(name).arg(number).arg(error);
            return false;
        }
    }
    return true;
}

std::optional<QByteArray> RadioScript::wireBytes(const QByteArray &text, QString *error)
{
    if (text.startsWith('!'))
        return unescapeBytes(text.mid(1), error);
    const std::optional<QByteArray> line = unescapeBytes(text, error);
    return line ? std::optional('\x02' + *line + '\x03') : std::nullopt;
}

void RadioScript::start()
{
    m_clock.start();
    m_next = 0;
    m_dueAt = 0;
    waitForStep();
}

/// Returns what is wrong with the line, or nothing.
QString RadioScript::parseStep(const QByteArray &line)
{
    const QByteArray delay = line.simplified().split(' ').constFirst();
    const QByteArray text = line.mid(delay.size()).trimmed();
    bool isNumber = false;
    const int delayMs = delay.toInt(&isNumber);
    if (!isNumber || delayMs < 0)
        return QStringLiteral("'%1' is not a delay in milliseconds").arg(QString::fromUtf8(delay));
    if (text.isEmpty())
        return QStringLiteral("no text after the delay");
    QString error;
    const std::optional<QByteArray> bytes = wireBytes(text, &error);
    if (bytes)
        m_steps.append({delayMs, *bytes});
    return error;
}

void RadioScript::playStep()
{
    emit due(m_steps.at(m_next++).bytes);
    waitForStep();
}

/// Delays count from when the step before was due, so that a busy machine does not stretch the script.
void RadioScript::waitForStep()
{
    if (m_next >= m_steps.size()) {
        emit finished();
        return;
    }
    m_dueAt += m_steps.at(m_next).delayMs;
    m_timer.start(int(qMax(qint64(0), m_dueAt - m_clock.elapsed())));
}
