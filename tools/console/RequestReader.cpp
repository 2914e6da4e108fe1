#include "tools/console/RequestReader.h"

#include <QUrl>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace http = boost::beast::http;

namespace {

const quint32 headerLimit = 8192;
const quint64 bodyLimit = 4096;
const int lastChunkSize = 5; // the parser asserts that it has as much when it looks at the last chunk again

/// The parts of a request's target (RFC 9112, 3.2); the host is there in the absolute form only.
struct Target
{
    explicit Target(const QByteArray &text)
    {
        const QByteArray start = text.left(8).toLower();
        isAbsolute = start.startsWith("http://") || start == "https://";
        int pathStart = 0;
        if (isAbsolute) {
            const int hostStart = text.indexOf("//") + 2;
            pathStart = hostStart;
            while (pathStart < text.size() && text.at(pathStart) != '/' && text.at(pathStart) != '?')
                ++pathStart;
            host = text.mid(hostStart, pathStart - hostStart);
        }
        const int mark = text.indexOf('?', pathStart);
        const int pathEnd = mark < 0 ? text.size() : mark;
        path = text.mid(pathStart, pathEnd - pathStart);
        if (isAbsolute && path.isEmpty())
            path = "/";
        query = text.mid(pathEnd + 1);
    }

    bool isAbsolute = false;
    QByteArray host;
    QByteArray path;
    QByteArray query;
};

QByteArray bytesOf(boost::beast::string_view text)
{
    return QByteArray(text.data(), int(text.size()));
}

} // namespace

struct RequestReader::Parser : http::request_parser<http::string_body>
{
};

RequestReader::RequestReader() : m_parser(std::make_unique<Parser>())
{
    m_parser->header_limit(headerLimit);
    m_parser->body_limit(bodyLimit);
    m_parser->eager(true);
}

RequestReader::~RequestReader() = default;

RequestReader::State RequestReader::feed(const QByteArray &bytes)
{
    m_pending += bytes;
    while (m_state == Reading && !m_pending.isEmpty()) {
        if (m_parser->is_header_done() && m_parser->chunked() && m_pending.size() < lastChunkSize)
            return m_state;
        boost::beast::error_code error;
        // The parser itself bounds neither a chunk's extensions nor the trailers.
        const size_t offered = qMin(size_t(m_pending.size()), size_t(headerLimit));
        const size_t taken = m_parser->put(boost::asio::buffer(m_pending.constData(), offered), error);
        m_pending.remove(0, int(taken));
        if (error == http::error::header_limit)
            return refuse(431);
        if (error == http::error::body_limit)
            return refuse(413);
        if (error && error != http::error::need_more)
            return refuse(400);
        if (m_parser->is_done() && !hasHost())
            return refuse(400);
        if (m_parser->is_done())
            m_state = Complete;
        else if (error && taken == 0)
            return offered == headerLimit ? refuse(431) : m_state;
    }
    return m_state;
}

/// Whether there is one Host, as RFC 9112, 3.2, wants it; HTTP/1.0 may have none.
bool RequestReader::hasHost() const
{
    const auto &message = m_parser->get();
    const auto count = message.count(http::field::host);
    const Target target(bytesOf(message.target()));
    return (count == 1 || (count == 0 && message.version() < 11))
        && (!target.isAbsolute || !target.host.isEmpty());
}

RequestReader::State RequestReader::refuse(int status)
{
    m_refusal = status;
    m_pending.clear();
    m_state = Refused;
    return m_state;
}

Request RequestReader::request() const
{
    const auto &message = m_parser->get();
    Request result;
    result.method = bytesOf(message.method_string());
    const Target target(bytesOf(message.target()));
    result.path = QUrl::fromPercentEncoding(target.path);
    result.query = QUrlQuery(QString::fromUtf8(target.query));
    for (const auto &field : message)
        result.headers.insert(bytesOf(field.name_string()).toLower(), bytesOf(field.value()));
    if (target.isAbsolute)
        result.headers["host"] = target.host; // which counts instead of the line's (RFC 9112, 3.2.2)
    result.body = QByteArray::fromStdString(message.body());
    return result;
}

QByteArray Request::cookie(const QByteArray &name) const
{
    for (const QByteArray &pair : headers.value("cookie").split(';')) {
        const QByteArray cookie = pair.trimmed();
        const int equals = cookie.indexOf('=');
        if (equals >= 0 && cookie.left(equals) == name)
            return cookie.mid(equals + 1);
    }
    return {};
}
