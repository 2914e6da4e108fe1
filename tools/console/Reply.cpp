#include "tools/console/Reply.h"

#include <QJsonDocument>

#include <ostream> // which the next one needs

#include <boost/beast/http/status.hpp>

namespace {

/// Nothing from outside the box, no code or style inside the page, nobody's frame, no address told to others.
const QByteArray commonHeaders = "Content-Security-Policy: default-src 'self'; base-uri 'none'; form-action "
                                 "'self'; frame-ancestors 'none'; "
                                 "object-src 'none'\r\n"
                                 "X-Content-Type-Options: nosniff\r\n"
                                 "X-Frame-Options: DENY\r\n"
                                 "Referrer-Policy: no-referrer\r\n"
                                 "Cross-Origin-Resource-Policy: same-origin\r\n"
                                 "Connection: close\r\n";

} // namespace

Reply Reply::json(const QJsonObject &object, int status)
{
    return {status, "application/json", QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n', {}};
}

Reply Reply::error(int status, const QString &message)
{
    return json({{QStringLiteral("error"), message}}, status);
}

Reply Reply::notFound()
{
    return error(404, QStringLiteral("there is nothing at this address"));
}

QByteArray Reply::head() const
{
    const auto reason =
        boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(unsigned(status)));
    QByteArray result = "HTTP/1.1 " + QByteArray::number(status) + ' '
        + QByteArray(reason.data(), int(reason.size())) + "\r\n" + commonHeaders;
    if (!contentType.isEmpty())
        result += "Content-Type: " + contentType + "\r\n";
    bool hasCaching = false;
    for (const auto &[name, value] : headers) {
        result += name + ": " + value + "\r\n";
        hasCaching = hasCaching || name == "Cache-Control";
    }
    return hasCaching ? result : result + "Cache-Control: no-store\r\n";
}

QByteArray Reply::message(bool withBody) const
{
    QByteArray result = head();
    if (status != 304 && !isEndless)
        result += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return result + "\r\n" + (withBody ? body : QByteArray());
}
