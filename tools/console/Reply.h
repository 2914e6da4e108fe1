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
    bool isEndless = false; ///< more of the body follows until the connection ends

    static Reply json(const QJsonObject &object, int status = 200);
    /// A JSON object whose member `error` says in a sentence what is wrong.
    static Reply error(int status, const QString &message);
    static Reply notFound();

    /// The whole message (RFC 9112) after which the connection ends. `withBody` false leaves the body out, as
    /// the answer to HEAD does.
    QByteArray message(bool withBody) const;

private:
    QByteArray head() const;
};
