#pragma once

#include <QList>
#include <QString>
#include <QStringList>

/// Records every log line of this process while it lives, instead of printing it.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    Q_DISABLE_COPY(LogCapture)

    struct Line
    {
        QtMsgType type;
        QString text;
    };

    QStringList texts() const;
    QStringList texts(QtMsgType type) const;
    /// How many lines hold this text.
    int count(const QString &part) const;
    void clear();

private:
    QtMessageHandler m_previous;
};
