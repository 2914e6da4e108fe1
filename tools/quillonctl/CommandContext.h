#pragma once

#include "tools/quillonctl/ConfigFile.h"
#include "tools/quillonctl/InputChecks.h"

#include <string>

/// What every command shares: the options that hold for all of them, and the exit code of this run.
struct CommandContext
{
    std::string configFile; ///< path in UTF-8
    int waitSeconds = 5; ///< how long a locked file is waited for
    int exitCode = 0;

    QString path() const
    {
        return checkedText(configFile, QStringLiteral("the path of the configuration file"), 4000);
    }
    ConfigFile open(ConfigFile::Access access) const
    {
        return ConfigFile(path(), access, waitSeconds * 1000);
    }
};
