#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>

/// An answer to a request: what is sent, and what every answer says about how it may be used.
struct Reply
{
    int status = 200;
    QByteArray contentType = "application/json";
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers;

    static Reply json(const QJsonObject &object, int status = 200);
    /// A JSON object whose member `error` says in a sentence what is wrong.
    static Reply error(int status, const QString &message);

    /// The whole message (RFC 9112) after which the connection ends. `withBody` false leaves the body out, as
    /// the answer to HEAD does.
    QByteArray message(bool withBody) const;
    /// The beginning of a message whose body goes on until the connection ends.
    QByteArray streamHead() const;

private:
    QByteArray head() const;
};
