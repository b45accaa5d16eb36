#pragma once

#include <string>

#include <sys/types.h>

#include "platform/pavane/log.h"

namespace pavane {

// What every category writes until somebody changes it.
inline constexpr LOG_LEVEL kDefaultLogLevel = LOG_LEVEL_ERR;

// Maps the log configuration file `path`, making it when it is missing or of another layout, and sets
// g_pDbgLogCfg. All processes that map the file see a change at once. False when that is not possible;
// g_pDbgLogCfg is then as it was. Calling it again changes nothing.
bool OpenLogConfig(const std::string& path);

// The file that this node's configuration gives.
std::string LogConfigPath();

// Changes the level of one category. False without an open configuration.
bool SetLogLevel(LOG_CATEG category, LOG_LEVEL level);

// Gives one process a level of its own, whatever its categories' levels say. False without an open
// configuration and when every row belongs to a living process.
bool SetLogLevelOfProcess(pid_t pid, LOG_LEVEL level);

}  // namespace pavane
