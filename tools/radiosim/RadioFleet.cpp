#include "tools/radiosim/RadioFleet.h"

#include "tools/radiosim/ByteEscapes.h"
#include "tools/radiosim/RadiosimOptions.h"
#include "tools/radiosim/TrafficGenerator.h"

#include <QCoreApplication>

#include <cstdio>

RadioFleet::RadioFleet(QObject *parent) : QObject(parent) { }

bool RadioFleet::start(const RadiosimOptions &options)
{
    if (!options.script().isEmpty() && !m_script.load(options.script())) {
        m_errorString = m_script.errorString();
        return false;
    }
    for (int number = 1; number <= options.count(); ++number) {
        if (!addRadio(options))
            return false;
        if (!options.quiet())
            printEvents(number);
        connect(&m_script, &RadioScript::due, radio(number), &SimulatedRadio::send);
        if (options.traffic() > 0)
            setTraffic(number, options.traffic());
    }
    m_script.start();
    return true;
}

bool RadioFleet::plugIn(int number)
{
    const SimulatedRadio *plugged = radio(number);
    if (!radio(number)->plugIn()) {
        m_errorString = plugged->errorString();
        return false;
    }
    const QString link =
        plugged->link().isEmpty() ? QString() : QStringLiteral(" (link %1)").arg(plugged->link());
    print(number,
        QStringLiteral("%1%2, %3 bit/s, ESN %4")
            .arg(plugged->slavePath(), link)
            .arg(plugged->settings().baud)
            .arg(plugged->settings().esn));
    return true;
}

void RadioFleet::unplug(int number)
{
    radio(number)->unplug();
    print(number, QStringLiteral("unplugged"));
}

void RadioFleet::setBaud(int number, int baud)
{
    radio(number)->setBaud(baud);
    print(number, QStringLiteral("%1 bit/s").arg(baud));
}

void RadioFleet::setTraffic(int number, double perSecond)
{
    TrafficGenerator *&traffic = m_traffic[number];
    if (!traffic) {
        traffic = new TrafficGenerator(this);
        connect(traffic, &TrafficGenerator::lineReady, radio(number), &SimulatedRadio::hear);
    }
    if (perSecond > 0)
        traffic->start(perSecond);
    else
        traffic->stop();
    print(number, QStringLiteral("%1 lines/s after line %2").arg(perSecond).arg(traffic->lastNumber()));
}

void RadioFleet::print(const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    if (std::fflush(stdout) != 0)
        QCoreApplication::exit(1); // nobody reads any more
}

bool RadioFleet::addRadio(const RadiosimOptions &options)
{
    const int number = count() + 1;
    auto *added = new SimulatedRadio(options.settings(number), this);
    m_radios.append(added);
    if (!added->setLink(options.link(number))) {
        m_errorString = added->errorString();
        return false;
    }
    return plugIn(number);
}

void RadioFleet::printEvents(int number)
{
    connect(radio(number), &SimulatedRadio::lineReceived, this, [number](const QByteArray &line) {
        print(number, QStringLiteral("received %1").arg(QString::fromUtf8(escapeBytes(line))));
    });
    connect(radio(number), &SimulatedRadio::displayChanged, this, [number](const QString &text) {
        print(number, QStringLiteral("display [%1]").arg(QString::fromUtf8(escapeBytes(text.toUtf8()))));
    });
}

void RadioFleet::print(int number, const QString &text)
{
    print(QStringLiteral("radio %1: ").arg(number) + text);
}
