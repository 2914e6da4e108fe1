#pragma once

#include "config/RadioAdapterConfig.h"
#include "protocol/RadioLink.h"

#include <QByteArray>
#include <QDateTime>

class IcomCommand;
class IcomCommandResponse;

// What the "STREAM" output writes. Each function makes one record: one line of compact JSON in UTF-8, ended
// by LF. Times are UTC in ISO 8601 with milliseconds. docs/stream.md describes every member.

namespace StreamRecords {

/// The first record on every connection: which gateway this is.
QByteArray gateway();
/// `since` is when the radio came into this state.
QByteArray radio(const RadioAdapterConfig &radio, RadioLink::State state, const QDateTime &since);
/// A frame that the radio heard.
QByteArray frame(const RadioAdapterConfig &radio, const IcomCommandResponse &response);
/// A command that the radio was sent; the command itself is left as it is.
QByteArray command(const RadioAdapterConfig &radio, IcomCommand &command);
/// How many records a client was too slow for.
QByteArray lost(qint64 count);

} // namespace StreamRecords
