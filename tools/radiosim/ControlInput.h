#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QVector>

class RadioFleet;

/// Commands for the radios on standard input, one a line: unplug, plug, baud, traffic, hear and raw. Each is
/// answered with "ok" or "error: reason" on standard output. The end of the input ends the event loop with
/// code 0.
class ControlInput : public QObject
{
    Q_OBJECT

public:
    /// The fleet must outlive this object.
    explicit ControlInput(RadioFleet &fleet, QObject *parent = nullptr);

private:
    struct Command;
    static const Command commands[];

    void readInput();
    QString execute(const QByteArray &line);
    QString run(const Command &command, const QByteArray &argument, const QByteArray &number);

    // Each acts on the radios of these numbers and returns what is wrong, or nothing.
    QString unplug(const QByteArray &argument, const QVector<int> &numbers);
    QString plug(const QByteArray &argument, const QVector<int> &numbers);
    QString baud(const QByteArray &argument, const QVector<int> &numbers);
    QString traffic(const QByteArray &argument, const QVector<int> &numbers);
    QString hear(const QByteArray &argument, const QVector<int> &numbers);
    QString raw(const QByteArray &argument, const QVector<int> &numbers);
    QString send(const QByteArray &wireText, const QVector<int> &numbers);

    RadioFleet &m_fleet;
    QSocketNotifier m_notifier;
    QByteArray m_input;
};
