#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QMap>
#include <QUrlQuery>

#include <memory>

/// An HTTP/1.1 request that has arrived as a whole.
struct Request
{
    QByteArray method;
    QString path; ///< decoded, without the query
    QUrlQuery query;
    QMap<QByteArray, QByteArray> headers; ///< names in lower case
    QByteArray body;
    QHostAddress client;
    bool encrypted = false; ///< it came over TLS

    /// A cookie's value (RFC 6265), empty when there is none of this name.
    QByteArray cookie(const QByteArray &name) const;
};

/// Makes a request of the bytes of a connection (RFC 9112), however they are cut. A header section, a chunk's
/// extensions or trailers of more than 8 KiB, a body of more than 4 KiB, and what is no HTTP, or names no
/// host or two, are refused.
class RequestReader
{
public:
    enum State {
        Reading,
        Complete,
        Refused,
    };

    RequestReader();
    ~RequestReader();
    Q_DISABLE_COPY(RequestReader)

    /// Takes further bytes; once the state is no longer Reading they are dropped.
    State feed(const QByteArray &bytes);
    /// The status code of a refusal: 400, 413 or 431.
    int refusal() const { return m_refusal; }
    /// The request once it is complete.
    Request request() const;

private:
    struct Parser;

    bool hasHost() const;
    State refuse(int status);

    const std::unique_ptr<Parser> m_parser;
    QByteArray m_pending;
    State m_state = Reading;
    int m_refusal = 0;
};
