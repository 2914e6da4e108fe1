#pragma once

#include <QString>

/// One row of the data_forwarder table: an output for what the radios hear and are sent.
struct DataForwarderConfig
{
    /// Live state of the output, as stored in the status column.
    enum ForwarderStatus {
        Idle = 0, ///< not running yet
        Reserved1 = 1, ///< accepted when read, never written
        Reserved2 = 2, ///< accepted when read, never written
        Working = 3, ///< connected, or the last delivery succeeded
        Failed = 4, ///< connection lost or delivery failed
    };

    int ids = -1; ///< row id, -1 when there is no such row
    QString type; ///< kind of output, in capitals
    QString comment;
    QString secret; ///< credential text
    QString context; ///< text whose meaning depends on the kind; for GCP the topic
    QString target; ///< host, file or endpoint, as the kind needs
    int port = -1; ///< destination port; 0 when the column holds no number
    bool enabled = false;
    ForwarderStatus status = Idle;
};
