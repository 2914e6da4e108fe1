#pragma once

#include "config/DataForwarderConfig.h"
#include "forwarders/DataForwarder.h"

#include <QSharedPointer>

/// The output of a row, by its type; null for a type that is not known. A further kind of output is one class
/// and one row in the table of this function.
QSharedPointer<DataForwarder> createForwarder(const DataForwarderConfig &config);
