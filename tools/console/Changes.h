#pragma once

#include "tools/console/Reply.h"

/// Whether a POST to this path asks for a change.
bool isChange(const QString &path);

/// Carries out what a POST under /api asks for, by the code that quillonctl uses: "/api/say", "/api/restart",
/// "/api/radio/ID", "/api/stream". May wait for the file. Throws CommandError when it cannot be done; status
/// 404 for any other path.
Reply carryOut(const QString &path, const QJsonObject &body, const QString &configFile);
