#include "support/LogCapture.h"

static QList<LogCapture::Line> lines;

LogCapture::LogCapture()
    : m_previous(qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
          lines.append({type, text});
      }))
{
    lines.clear();
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
}

QStringList LogCapture::texts() const
{
    QStringList result;
    for (const Line &line : qAsConst(lines))
        result.append(line.text);
    return result;
}

QStringList LogCapture::texts(QtMsgType type) const
{
    QStringList result;
    for (const Line &line : qAsConst(lines)) {
        if (line.type == type)
            result.append(line.text);
    }
    return result;
}

int LogCapture::count(const QString &part) const
{
    return texts().filter(part).size();
}

void LogCapture::clear()
{
    lines.clear();
}
