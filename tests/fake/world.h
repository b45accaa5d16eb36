#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "platform/pavane/log.h"

#include "tests/fake/functions.h"

namespace fake {

// What a scenario says about the log configuration; without one there is no shared configuration at all.
struct LogSetting {
    static constexpr int kThisProcess = 0;

    std::map<int, int> levelByCategory;     // a category that is left out has level 0
    std::vector<std::pair<int, int>> pids;  // process id (kThisProcess for this one), level; in order
    std::optional<int> pidCount;            // when it differs from the number of rows
};

// The world that a scenario's request meets: it answers the background functions.
struct World {
    bool cmsHost = false;
    bool cmsPaired = false;
    bool cmsEnabled = false;
    int ownStatus = 0;
    bool running = true;
    int euid = 0;
    int egid = 0;
    std::set<std::string> directories;
    std::set<std::string> files;
    Json::Value shares{Json::arrayValue};
    Json::Value cameras{Json::arrayValue};
    Json::Value servers{Json::arrayValue};
    Json::Value folders{Json::arrayValue};
    Json::Value applications{Json::arrayValue};
    std::set<std::string> btrfsVolumes;
    std::optional<LogSetting> log;
};

// The reply to a background function as `world` has it, in the form of the function's benign reply.
Json::Value AnswerFromWorld(const World& world, const FunctionTraits& function, const Json::Value& args);

// Puts the scenario's log configuration in place of g_pDbgLogCfg until the object is destroyed.
class LogConfigurationScope {
public:
    explicit LogConfigurationScope(const std::optional<LogSetting>& setting);
    ~LogConfigurationScope();
    LogConfigurationScope(const LogConfigurationScope&) = delete;
    LogConfigurationScope& operator=(const LogConfigurationScope&) = delete;

private:
    DbgLogCfg m_configuration{};
};

}  // namespace fake
