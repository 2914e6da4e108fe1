#pragma once

#include "tools/radiosim/RadioScript.h"
#include "tools/radiosim/SimulatedRadio.h"

#include <QMap>
#include <QVector>

class RadiosimOptions;
class TrafficGenerator;

/// The program's radios, with what they hear; prints on standard output what happens to them, a line each,
/// flushed at once.
class RadioFleet : public QObject
{
    Q_OBJECT

public:
    explicit RadioFleet(QObject *parent = nullptr);

    /// Plugs every radio in and starts script and traffic; false and errorString() on failure.
    bool start(const RadiosimOptions &options);
    QString errorString() const { return m_errorString; }

    /// Radios are numbered from 1.
    int count() const { return m_radios.size(); }
    SimulatedRadio *radio(int number) { return m_radios.at(number - 1); }

    /// These print their outcome; false and errorString() on failure.
    bool plugIn(int number);
    void unplug(int number);
    void setBaud(int number, int baud);
    /// Lines per second from now on, 0 for none; numbers go on where they were.
    void setTraffic(int number, double perSecond);

    /// Prints a line as it is.
    static void print(const QString &line);

private:
    bool addRadio(const RadiosimOptions &options);
    void printEvents(int number);
    static void print(int number, const QString &text);

    QVector<SimulatedRadio *> m_radios;
    QMap<int, TrafficGenerator *> m_traffic; // of those that have heard any
    RadioScript m_script;
    QString m_errorString;
};
