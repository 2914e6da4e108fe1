#pragma once

#include "tools/console/Reply.h"

/// The files of the page: those that are compiled in, and the chart library that Debian installs.
namespace Assets {

/// The file at this path, or the word that the client has it already; status 404 when there is none.
Reply answer(const QString &path, const QByteArray &knownTag);

} // namespace Assets
