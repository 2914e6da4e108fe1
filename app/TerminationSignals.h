#pragma once

#include <QObject>

/// Turns SIGTERM, SIGINT and SIGHUP into a normal end of the event loop with exit code 0, so that destructors
/// run.
/// One instance at a time.
class TerminationSignals : public QObject
{
    Q_OBJECT

public:
    explicit TerminationSignals(QObject *parent = nullptr);
    ~TerminationSignals() override;

private:
    void handleSignal();
};
