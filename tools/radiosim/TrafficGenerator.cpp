#include "tools/radiosim/TrafficGenerator.h"

#include <array>

namespace {

constexpr int callers = 7; // no divisor of the number of kinds, so every caller sends every kind
constexpr int minIntervalMs = 5;
constexpr int maxIntervalMs = 250;

// <caller> and <number> are filled in. The alerts close with a double quote that nothing opens.
constexpr std::array kinds{
    "*NTF,DPMR,RXVCALL,IND,0047312,<caller>,<number>,30",
    "*NTF,5T,RXCODE,2040,<number>,1",
    "*NTF,DPMR,RXSTAT,IND,0047312,<caller>,<number>,30,ACK",
    "*NTF,DPMR,RXMSG,IND,0047312,<caller>,<number>,30,GPS,\"4851.4120N,00221.0340E\"",
    "*NTF,DPMR,RXVCALL,GRP,0000100,<caller>,<number>,30",
    "*NTF,DPMR,RXMSG,IND,0047312,<caller>,<number>,30,TXT,\"On the way\"",
    "*NTF,CTRL,BATVST,L1,<number>\"",
    "*NTF,DPMR,RXMSG,IND,0047312,<caller>,<number>,30,GPS,\"4850.9981N,00220.7715E\"",
    "*NTF,5T,RXCODE,3175,<number>,2",
    "*NTF,CTRL,RFPWRST,ON,<number>\"",
};

} // namespace

TrafficGenerator::TrafficGenerator(QObject *parent) : QObject(parent)
{
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &TrafficGenerator::produce);
}

void TrafficGenerator::start(double perSecond)
{
    m_perSecond = perSecond;
    // Shorter than the time between two lines, which are then at most a quarter of it late.
    m_timer.setInterval(int(qBound(double(minIntervalMs), 250 / perSecond, double(maxIntervalMs))));
    m_firstOfRun = m_lastNumber;
    m_clock.start();
    m_timer.start();
}

void TrafficGenerator::stop()
{
    m_timer.stop();
}

QByteArray TrafficGenerator::line(int number)
{
    QByteArray text(kinds[size_t(number) % kinds.size()]);
    text.replace("<caller>", QByteArray::number(1200000 + number % callers));
    return text.replace("<number>", 'N' + QByteArray::number(number).rightJustified(6, '0'));
}

void TrafficGenerator::produce()
{
    const double dueInRun = double(m_clock.elapsed()) * m_perSecond / 1000;
    while (m_timer.isActive() && m_lastNumber - m_firstOfRun < int(dueInRun))
        emit lineReady(line(++m_lastNumber));
}
