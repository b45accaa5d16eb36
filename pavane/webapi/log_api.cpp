// "KORV.Pavane.Log": how much the running processes write into the log.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>

#include "pavane/recorder/log_config.h"
#include "pavane/recorder/log_names.h"
#include "pavane/webapi/api_call.h"
#include "pavane/webapi/methods.h"

namespace pavane {

namespace {

const DbgLogCfg& OpenConfig() {
    if (g_pDbgLogCfg == nullptr) {
        throw std::runtime_error("the log configuration is not open");
    }
    return *g_pDbgLogCfg;
}

// Names and numbers are both welcome.
std::string NameOrNumber(const KORV::APIRequest& request, const char* name) {
    const Json::Value value = request.GetParam(name, "");
    if (!value.isString() && !value.isInt()) {
        throw BadParameter(name, "must be a name or a number");
    }
    return value.asString();
}

LOG_LEVEL ReadLevel(const KORV::APIRequest& request) {
    const std::optional<LOG_LEVEL> level = ParseLogLevel(NameOrNumber(request, "level"));
    if (!level.has_value()) {
        throw BadParameter("level", "must be a log level's name or number");
    }
    return *level;
}

void SetProcessLevel(int pid, LOG_LEVEL level) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
        throw BadParameter("pid", "must be the id of a running process");
    }
    if (!SetLogLevelOfProcess(pid, level)) {
        throw std::runtime_error("there is no room for another process's level");
    }
}

void SetCategoryLevel(const std::string& name, LOG_LEVEL level) {
    const std::optional<LOG_CATEG> category = ParseLogCategory(name);
    if (!category.has_value()) {
        throw BadParameter("category", "must be a log category's name or number");
    }
    if (!SetLogLevel(*category, level)) {
        throw std::runtime_error("the log configuration is not open");
    }
}

void PutLevel(Json::Value& element, int level) {
    element["level"] = level;
    element["levelName"] = Enum2String<LOG_LEVEL>(static_cast<LOG_LEVEL>(level));
}

}  // namespace

Json::Value GetLogLevelsMethod(const KORV::APIRequest& /*request*/) {
    const DbgLogCfg& config = OpenConfig();
    Json::Value categories(Json::arrayValue);
    for (int i = 0; i < LOG_CATEG_COUNT; ++i) {
        const std::string name = Enum2String<LOG_CATEG>(static_cast<LOG_CATEG>(i));
        const int level = config.level[i];
        if (ParseLogCategory(name) == static_cast<LOG_CATEG>(i) || level != kDefaultLogLevel) {
            Json::Value element(Json::objectValue);
            element["category"] = i;
            element["name"] = name;
            PutLevel(element, level);
            categories.append(element);
        }
    }
    Json::Value processes(Json::arrayValue);
    const int used = std::min<int>(config.pidCount, DbgLogCfg::kMaxPids);
    for (int i = 0; i < used; ++i) {
        Json::Value element(Json::objectValue);
        element["pid"] = config.pidLevel[i].pid.load();
        PutLevel(element, config.pidLevel[i].level);
        processes.append(element);
    }
    Json::Value data(Json::objectValue);
    data["categories"] = categories;
    data["processes"] = processes;
    return data;
}

Json::Value SetLogLevelMethod(const KORV::APIRequest& request) {
    const LOG_LEVEL level = ReadLevel(request);
    const Json::Value pid = request.GetParam("pid", Json::Value());
    if (pid.isNull()) {
        SetCategoryLevel(NameOrNumber(request, "category"), level);
    } else {
        SetProcessLevel(pid.asInt(), level);
    }
    return Json::Value();
}

}  // namespace pavane
