#include "platform/korv/api_runner.h"
#include "platform/pavane/services.h"

#include "pavane/log_line.h"

namespace {

constexpr const char* kSource = "pavane/recorder/share_info";

bool IsComplete(const Json::Value& share) {
    return share.isObject() && share["fs_type"].isInt() && share["vol_size_mb"].isUInt64() &&
           share["is_share_moving"].isBool() && share["encryption"].isInt();
}

}  // namespace

int GetLocalShareExtraInfo(const std::string& name, Json::Value& info) {
    Json::Value request(Json::objectValue);
    request["name"] = name;
    Json::Value response;
    KORV::APIRunner::Exec(response, "KORV.Core.Share", 1, "get", request, "admin");
    const Json::Value& answer = response;  // looked at as a constant: looking must not add members
    if (!answer.isObject() || answer["success"] != true || !IsComplete(answer["data"])) {
        const Json::Value code =
            answer.isObject() && answer["error"].isObject() ? answer["error"]["code"] : 0;
        PV_LOG_LINE(kSource, "The share service tells nothing about the folder: error %d\n",
                    code.isInt() ? code.asInt() : 0);
        return -1;
    }
    const Json::Value& share = answer["data"];
    Json::Value facts(Json::objectValue);
    for (const char* key : {"fs_type", "vol_size_mb", "is_share_moving", "encryption"}) {
        facts[key] = share[key];
    }
    info = facts;
    return 0;
}
