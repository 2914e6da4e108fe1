#include "config/RadioAdapterConfig.h"

RadioAdapterConfig::RadioAdapterConfig(const RadioAdapterConfig &other)
    : QObject(), ids(other.ids), method(other.method), port(other.port), name(other.name),
      autobaud(other.autobaud), tx_enabled(other.tx_enabled), baudrate(other.baudrate),
      enabled(other.enabled), discovered(other.discovered), esn(other.esn), status(other.status)
{
}

// In an object of its own: all of the core would come with the others.
#include "moc_RadioAdapterConfig.cpp" // NOLINT(bugprone-suspicious-include)
