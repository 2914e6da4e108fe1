#include "tools/console/RequestReader.h"

#include <QUrl>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace http = boost::beast::http;

namespace {

const quint32 headerLimit = 8192;
const quint64 bodyLimit = 4096;

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
        if (m_parser->is_done())
            m_state = Complete;
        else if (error && taken == 0)
            return offered == headerLimit ? refuse(431) : m_state;
    }
    return m_state;
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
    const QByteArray target = bytesOf(message.target());
    const int pathEnd = target.contains('?') ? target.indexOf('?') : target.size();
    result.path = QUrl::fromPercentEncoding(target.left(pathEnd));
    result.query = QUrlQuery(QString::fromUtf8(target.mid(pathEnd + 1)));
    for (const auto &field : message)
        result.headers.insert(bytesOf(field.name_string()).toLower(), bytesOf(field.value()));
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
