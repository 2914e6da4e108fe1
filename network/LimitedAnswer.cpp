#include "network/LimitedAnswer.h"

#include <QNetworkReply>

static constexpr qint64 longestAnswer = 1024LL * 1024; // bytes

void limitAnswer(QNetworkReply *reply)
{
    reply->setReadBufferSize(2 * longestAnswer); // Qt's own thread reads on while this one is busy
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [reply] {
        if (reply->bytesAvailable() > longestAnswer)
            reply->abort();
    });
}

QString failureText(const QNetworkReply *reply)
{
    if (reply->error() != QNetworkReply::OperationCanceledError)
        return reply->errorString();
    return QStringLiteral("no whole answer in time, or a longer one than 1 MiB");
}
