#pragma once

#include <QObject>

/// Tells the outputs that the event loop is about to stand still for a while, as the TCP outputs let it:
/// what must not be lost by a failure of the power meanwhile is to be written now.
class LongWait : public QObject
{
    Q_OBJECT

public:
    /// The process-wide instance.
    static LongWait *getInstance();

signals:
    void begins();
};
