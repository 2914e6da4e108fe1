#include "tools/quillonctl/InputChecks.h"

#include "forwarders/PublishRequest.h"
#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/Printer.h"

#include <QHostAddress>
#include <QTextCodec>
#include <QUrl>

#include <algorithm>

namespace {

const QString deviceFolder = QStringLiteral("/dev/");

const int baudRates[] = {300, 600, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400};

/// An argument as an error line shows it.
QString shown(const QString &text)
{
    return QLatin1Char('"') + printable(text, 60) + QLatin1Char('"');
}

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

bool isLabelCharacter(QChar c)
{
    return isDigit(c) || (c >= QLatin1Char('a') && c <= QLatin1Char('z'))
        || (c >= QLatin1Char('A') && c <= QLatin1Char('Z')) || c == QLatin1Char('_') || c == QLatin1Char('-');
}

/// A part of a host name (RFC 1123, and underscores, which are in use).
bool isLabel(const QString &text)
{
    return !text.isEmpty() && text.size() <= 63 && std::all_of(text.begin(), text.end(), isLabelCharacter)
        && !text.startsWith(QLatin1Char('-')) && !text.endsWith(QLatin1Char('-'));
}

bool isHostName(const QString &text)
{
    QStringList labels = text.split(QLatin1Char('.'));
    if (labels.size() > 1 && labels.last().isEmpty())
        labels.removeLast();
    const bool isNumeric =
        std::all_of(text.begin(), text.end(), [](QChar c) { return isDigit(c) || c == QLatin1Char('.'); });
    return text.size() <= 253 && !isNumeric && std::all_of(labels.begin(), labels.end(), isLabel);
}

/// A number of plain digits within the range, or -1.
int number(const QString &text, int minimum, int maximum)
{
    if (text.isEmpty() || text.size() > 10 || !std::all_of(text.begin(), text.end(), isDigit))
        return -1;
    const qlonglong value = text.toLongLong();
    return value >= minimum && value <= maximum ? int(value) : -1;
}

} // namespace

bool isUtf8(const std::string &text)
{
    QTextCodec::ConverterState state;
    QTextCodec::codecForName("UTF-8")->toUnicode(text.data(), int(text.size()), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

QString checkedText(const std::string &argument, const QString &what, int maximum)
{
    if (!isUtf8(argument))
        throw CommandError(QStringLiteral("%1 must be UTF-8 text").arg(what));
    QString text = QString::fromStdString(argument);
    if (text.trimmed().isEmpty())
        throw CommandError(QStringLiteral("%1 must not be empty").arg(what));
    if (text.size() > maximum)
        throw CommandError(QStringLiteral("%1 is too long: %2 characters, at most %3 are allowed")
                               .arg(what)
                               .arg(text.size())
                               .arg(maximum));
    if (std::any_of(text.begin(), text.end(), [](QChar c) { return c.category() == QChar::Other_Control; }))
        throw CommandError(QStringLiteral("%1 must not hold control characters: %2").arg(what, shown(text)));
    return text;
}

int checkedId(const std::string &argument)
{
    const QString text = QString::fromStdString(argument);
    const int id = number(text, 1, std::numeric_limits<int>::max());
    if (id < 0)
        throw CommandError(QStringLiteral("an id is a whole number from 1, not %1").arg(shown(text)));
    return id;
}

int checkedBaudRate(const std::string &argument)
{
    const QString text = QString::fromStdString(argument);
    const int rate = number(text, 1, std::numeric_limits<int>::max());
    if (std::find(std::begin(baudRates), std::end(baudRates), rate) != std::end(baudRates))
        return rate;
    QStringList known;
    for (const int each : baudRates)
        known.append(QString::number(each));
    throw CommandError(
        QStringLiteral("a speed is one of %1, not %2").arg(known.join(QStringLiteral(", ")), shown(text)));
}

QString checkedPort(const std::string &argument)
{
    const QString text = checkedText(argument, QStringLiteral("a port"), 255);
    QString port = text.startsWith(deviceFolder) ? text.mid(deviceFolder.size()) : text;
    const QStringList parts =
        (port.startsWith(QLatin1Char('/')) ? port.mid(1) : port).split(QLatin1Char('/'));
    const bool wellFormed = std::none_of(parts.begin(), parts.end(), [](const QString &part) {
        return part.isEmpty() || part == QLatin1String(".") || part == QLatin1String("..");
    });
    if (!wellFormed)
        throw CommandError(QStringLiteral(
            "a port is a name under /dev, such as ttyUSB0 or pts/3, or an absolute path, not %1")
                               .arg(shown(text)));
    return port;
}

QString checkedRadioName(const std::string &argument)
{
    QString name = checkedText(argument, QStringLiteral("a name"), 64);
    if (name.contains(QLatin1Char('|')))
        throw CommandError(
            QStringLiteral("a name must not hold \"|\", which ends it in the extended raw stream"));
    return name;
}

HostPort checkedHostPort(const std::string &argument)
{
    const QString text = checkedText(argument, QStringLiteral("a target"), 300);
    const bool bracketed = text.startsWith(QLatin1Char('['));
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    const QString port = text.mid(colon + 1);
    QString host = text.left(colon);
    const bool closed = !bracketed || host.endsWith(QLatin1Char(']'));
    if (bracketed)
        host = host.mid(1, host.size() - 2);
    if (colon < 0 || !closed || host.contains(QLatin1Char(bracketed ? ']' : ':')) || port.isEmpty()
        || !std::all_of(port.begin(), port.end(), isDigit))
        throw CommandError(QStringLiteral("a target is HOST:PORT or [IPv6]:PORT, not %1").arg(shown(text)));
    HostPort result{host, number(port, 1, 65535)};
    if (result.port < 0)
        throw CommandError(QStringLiteral("a TCP port is a number from 1 to 65535, not %1").arg(port));
    if (bracketed && QHostAddress(result.host).protocol() != QAbstractSocket::IPv6Protocol)
        throw CommandError(QStringLiteral("%1 is no IPv6 address").arg(shown(result.host)));
    const QString problem = hostProblem(result.host);
    if (!problem.isEmpty())
        throw CommandError(problem);
    return result;
}

QString checkedTopic(const std::string &argument)
{
    QString topic = checkedText(argument, QStringLiteral("a topic"), 255);
    // The column has numeric affinity, so that a topic of digits would not come back as it was; it starts
    // with a letter anyway: https://cloud.google.com/pubsub/docs/pubsub-basics#resource_names
    if (!isTopicId(topic))
        throw CommandError(
            QStringLiteral("a topic is 3 to 255 letters, digits and -._~+%, begins with a letter "
                           "and not with \"goog\"; this one is %1")
                .arg(shown(topic)));
    return topic;
}

QString serviceUrlProblem(const QString &url, const QStringList &schemes)
{
    const QUrl parsed(url, QUrl::StrictMode);
    const bool plain = parsed.isValid() && schemes.contains(parsed.scheme()) && parsed.path().isEmpty()
        && parsed.userInfo().isEmpty() && !parsed.hasQuery() && !parsed.hasFragment() && parsed.port(1) > 0;
    if (!plain || !url.startsWith(parsed.scheme()))
        return QStringLiteral(
            "an address begins with %1 and is followed by a host and perhaps a port, and nothing "
            "else; this one is %2")
            .arg(schemes.join(QStringLiteral(":// or ")) + QStringLiteral("://"), shown(url));
    return hostProblem(parsed.host());
}

QString hostProblem(const QString &host)
{
    if (isHostName(host) || (host.count(QLatin1Char('.')) == 3 && !QHostAddress(host).isNull())
        || QHostAddress(host).protocol() == QAbstractSocket::IPv6Protocol)
        return {};
    return QStringLiteral("%1 is neither a host name nor an address").arg(shown(host));
}

QString deviceFile(const QString &port)
{
    return port.startsWith(QLatin1Char('/')) ? port : deviceFolder + port;
}
