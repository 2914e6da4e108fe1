#pragma once

#include <QString>

/// Keeps a second daemon off a database file: flock(2) on the file beside it with ".lock" after its name. The
/// kernel lets go of it however the process ends, so nothing that is left behind keeps the next one from
/// starting. Where no lock can be had, as on a file system without them, that is logged and the daemon runs.
class InstanceLock
{
public:
    explicit InstanceLock(const QString &databasePath);
    ~InstanceLock();
    Q_DISABLE_COPY(InstanceLock)

    /// Whether another process has it.
    bool isHeldElsewhere() const { return m_heldElsewhere; }

private:
    int m_descriptor = -1;
    bool m_heldElsewhere = false;
};
