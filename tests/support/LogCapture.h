#pragma once

#include <QtCore>

/// Records every log line of this process while it lives, instead of printing it.
class LogCapture
{
public:
    LogCapture() : m_previous(qInstallMessageHandler(record)) { clear(); }
    ~LogCapture() { qInstallMessageHandler(m_previous); }
    Q_DISABLE_COPY(LogCapture)

    /// The lines of one type, or all of them, joined by line ends.
    QString text(int type = -1) const
    {
        QStringList texts;
        for (const auto &line : qAsConst(s_lines)) {
            if (type == -1 || type == line.first)
                texts.append(line.second);
        }
        return texts.join(u'\n');
    }
    /// How many lines hold this text.
    int count(const QString &part) const { return text().split(u'\n').filter(part).size(); }
    void clear() { s_lines.clear(); }

private:
    static void record(QtMsgType type, const QMessageLogContext &, const QString &text)
    {
        s_lines.append({type, text});
    }

    inline static QList<QPair<QtMsgType, QString>> s_lines;
    const QtMessageHandler m_previous;
};
