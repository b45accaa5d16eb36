#include "webapi/include/log_gate.h"

#include <unistd.h>

#include <algorithm>

bool ChkPidLevel(LOG_LEVEL level) {
    if (g_pDbgLogCfg == nullptr) {
        return false;
    }
    static const pid_t pid = getpid();
    const int count = std::min<int>(g_pDbgLogCfg->pidCount, DbgLogCfg::kMaxPids);
    for (int i = 0; i < count; ++i) {
        const DbgLogPidLevel& row = g_pDbgLogCfg->pidLevel[i];
        if (row.pid == pid) {
            return level <= row.level;
        }
    }
    return level <= LOG_LEVEL_NONE;
}

bool IsLogAdmitted(LOG_CATEG category, LOG_LEVEL level) {
    if (g_pDbgLogCfg == nullptr) {
        return level <= LOG_LEVEL_ERR;
    }
    return g_pDbgLogCfg->level[category] >= level || ChkPidLevel(level);
}
