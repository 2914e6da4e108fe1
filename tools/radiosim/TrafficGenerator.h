#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

/// A varied stream of what a busy radio hears: dPMR calls, status, texts and positions, 5-tone codes, battery
/// and transmit-power alerts. Every line holds its running number as one field, "N" and at least six digits:
///
///     *NTF,DPMR,RXVCALL,IND,0047312,1200003,N000123,30
///     *NTF,CTRL,BATVST,L1,N000124"
///
/// Numbers begin at 1 and have no gaps, so that whoever reads the stream elsewhere can tell what is missing.
class TrafficGenerator : public QObject
{
    Q_OBJECT

public:
    static constexpr double maxPerSecond = 100'000;

    explicit TrafficGenerator(QObject *parent = nullptr);

    /// Goes on after the last number. Lines per second, on average and above 0: 0.1 is one every ten seconds,
    /// several hundred come in groups.
    void start(double perSecond);
    void stop();
    /// The number of the last line, 0 before the first.
    int lastNumber() const { return m_lastNumber; }

    static QByteArray line(int number);

signals:
    void lineReady(const QByteArray &line);

private:
    void produce();

    double m_perSecond = 0;
    QTimer m_timer;
    QElapsedTimer m_clock;
    int m_firstOfRun = 0;
    int m_lastNumber = 0;
};
