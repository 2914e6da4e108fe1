#pragma once

#include <QObject>
#include <QSharedPointer>

class IcomCommand;
class RadioAdapterConfig;

/// What a command, a notification or an output may ask of the adapter that carries it.
/// Found with qobject_cast<RadioLink *> on a parent() or a sender(); null where there is no adapter any more.
class RadioLink
{
public:
    /// How far the adapter has come with its radio.
    enum State {
        Searching, ///< nothing has answered yet; a radio that is only listened to stays here
        Identified,
        Stopped, ///< given up
    };

    virtual ~RadioLink() = default;

    /// The radio's row, as the adapter knows it.
    virtual QSharedPointer<RadioAdapterConfig> config() const = 0;
    /// Appends a command to those that wait to be sent.
    virtual void enqueueCommand(QSharedPointer<IcomCommand> command) = 0;
    /// Appends a command after `delayMs` milliseconds.
    virtual void addDelayedCommand(QSharedPointer<IcomCommand> command, int delayMs) = 0;
};

Q_DECLARE_INTERFACE(RadioLink, "quillon.RadioLink/1.0")
