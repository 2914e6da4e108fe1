#pragma once

#include "tools/quillonctl/ConfigFile.h"
#include "tools/quillonctl/ServiceUser.h"

#include <QJsonArray>

/// Which outputs' servers are tried: a connection for a test may disturb one that takes just one.
enum Probing {
    Everything,
    WhatFails, ///< not those of outputs that the daemon has marked as working
};

/// What would not work when the daemon runs as this user: severity ("warning", "error"), subject, problem,
/// remedy. Waits up to two seconds for each server that does not answer, and as long again for its name.
QJsonArray findingRows(const ConfigFile &file, const ServiceUser &user, Probing probing);

/// What a finding counts for in the exit code of the check: 1 for a warning, 2 for an error.
int severityOf(const QJsonObject &finding);
