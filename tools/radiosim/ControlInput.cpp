#include "tools/radiosim/ControlInput.h"

#include "tools/radiosim/RadioFleet.h"
#include "tools/radiosim/TrafficGenerator.h"

#include <QCoreApplication>

#include <algorithm>
#include <array>
#include <numeric>
#include <unistd.h>

struct ControlInput::Command
{
    const char *name;
    int words; ///< of its own, after which a radio's number may follow; -1: the rest of the line, as it is
    QString (ControlInput::*handler)(const QByteArray &, const QVector<int> &);
};

const ControlInput::Command ControlInput::commands[] = {
    {"unplug", 0, &ControlInput::unplug},
    {"plug", 0, &ControlInput::plug},
    {"baud", 1, &ControlInput::baud},
    {"traffic", 1, &ControlInput::traffic},
    {"hear", -1, &ControlInput::hear},
    {"raw", -1, &ControlInput::raw},
};

ControlInput::ControlInput(RadioFleet &fleet, QObject *parent)
    : QObject(parent), m_fleet(fleet), m_notifier(STDIN_FILENO, QSocketNotifier::Read)
{
    connect(&m_notifier, &QSocketNotifier::activated, this, &ControlInput::readInput);
}

void ControlInput::readInput()
{
    std::array<char, 4096> bytes;
    const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count <= 0) {
        m_notifier.setEnabled(false);
        QCoreApplication::exit(0);
        return;
    }
    m_input.append(bytes.data(), int(count));
    for (int end = m_input.indexOf('\n'); end >= 0; end = m_input.indexOf('\n')) {
        const QByteArray line = m_input.left(end).trimmed();
        m_input.remove(0, end + 1);
        if (line.isEmpty())
            continue;
        const QString error = execute(line);
        RadioFleet::print(error.isEmpty() ? QStringLiteral("ok") : QStringLiteral("error: %1").arg(error));
    }
}

QString ControlInput::execute(const QByteArray &line)
{
    const QByteArray word = line.simplified().split(' ').constFirst();
    const QByteArray argument = line.mid(word.size()).trimmed();
    const int colon = word.indexOf(':');
    const QByteArray name = colon < 0 ? word : word.left(colon);
    for (const Command &command : commands) {
        if (name == command.name)
            return run(command, argument, colon < 0 ? QByteArray() : word.mid(colon + 1));
    }
    return QStringLiteral("unknown command '%1'").arg(QString::fromUtf8(word));
}

QString ControlInput::run(const Command &command, const QByteArray &argument, const QByteArray &number)
{
    QByteArray ownArgument = argument;
    QByteArray chosen = number;
    if (command.words >= 0) {
        QList<QByteArray> words = argument.simplified().split(' ');
        words.removeAll(QByteArray());
        if (words.size() == command.words + 1)
            chosen = words.takeLast();
        if (words.size() != command.words)
            return QStringLiteral("%1: wrong number of words").arg(QString::fromLatin1(command.name));
        ownArgument = words.join(' ');
    }
    if (chosen.isEmpty()) {
        QVector<int> all(m_fleet.count());
        std::iota(all.begin(), all.end(), 1);
        return (this->*command.handler)(ownArgument, all);
    }
    const int radio = chosen.toInt();
    if (radio < 1 || radio > m_fleet.count())
        return QStringLiteral("no radio '%1'").arg(QString::fromUtf8(chosen));
    return (this->*command.handler)(ownArgument, {radio});
}

QString ControlInput::unplug(const QByteArray &, const QVector<int> &numbers)
{
    for (const int number : numbers)
        m_fleet.unplug(number);
    return QString();
}

QString ControlInput::plug(const QByteArray &, const QVector<int> &numbers)
{
    const bool all =
        std::all_of(numbers.begin(), numbers.end(), [this](int number) { return m_fleet.plugIn(number); });
    return all ? QString() : m_fleet.errorString();
}

QString ControlInput::baud(const QByteArray &argument, const QVector<int> &numbers)
{
    const int rate = argument.toInt();
    if (!PseudoTerminal::knownSpeeds().contains(rate))
        return QStringLiteral("unknown speed '%1'").arg(QString::fromUtf8(argument));
    for (const int number : numbers)
        m_fleet.setBaud(number, rate);
    return QString();
}

QString ControlInput::traffic(const QByteArray &argument, const QVector<int> &numbers)
{
    bool isNumber = false;
    const double perSecond = argument.toDouble(&isNumber);
    if (!isNumber || !(perSecond >= 0 && perSecond <= TrafficGenerator::maxPerSecond))
        return QStringLiteral("no rate '%1'").arg(QString::fromUtf8(argument));
    for (const int number : numbers)
        m_fleet.setTraffic(number, perSecond);
    return QString();
}

QString ControlInput::hear(const QByteArray &argument, const QVector<int> &numbers)
{
    return send(argument.startsWith('!') ? "\\x21" + argument.mid(1) : argument, numbers);
}

QString ControlInput::raw(const QByteArray &argument, const QVector<int> &numbers)
{
    return send('!' + argument, numbers);
}

QString ControlInput::send(const QByteArray &wireText, const QVector<int> &numbers)
{
    QString error;
    const std::optional<QByteArray> bytes = RadioScript::wireBytes(wireText, &error);
    if (!bytes)
        return error;
    QStringList lost;
    for (const int number : numbers) {
        if (!m_fleet.radio(number)->send(*bytes))
            lost.append(QString::number(number));
    }
    return lost.isEmpty() ? QString()
                          : QStringLiteral("lost at radio %1").arg(lost.join(QStringLiteral(", ")));
}
