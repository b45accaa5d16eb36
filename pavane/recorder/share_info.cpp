#include "pavane/recorder/share_info.h"

#include "platform/korv/api_runner.h"
#include "platform/pavane/services.h"

#include "pavane/log_line.h"
#include "pavane/recorder/share_state.h"

namespace {

bool IsComplete(const Json::Value& share) {
    return share.isObject() && share["fs_type"].isInt() && share["vol_size_mb"].isUInt64() &&
           share["is_share_moving"].isBool() && share["encryption"].isInt();
}

int ErrorCode(const Json::Value& answer) {
    const Json::Value error = answer.isObject() ? answer["error"] : Json::Value();
    return error.isObject() && error["code"].isInt() ? error["code"].asInt() : 0;
}

}  // namespace

namespace pavane {

bool ReadShareInfo(const Json::Value& answer, Json::Value& info) {
    if (!answer.isObject() || answer["success"] != true || !IsComplete(answer["data"])) {
        return false;
    }
    const Json::Value& share = answer["data"];
    Json::Value facts(Json::objectValue);
    for (const char* key : {"fs_type", "vol_size_mb", "is_share_moving", "encryption"}) {
        facts[key] = share[key];
    }
    info = facts;
    return true;
}

}  // namespace pavane

bool IsSuccess(const Json::Value& reply) { return reply.isObject() && reply["success"] == true; }

int GetAPIErrCode(const Json::Value& reply) {
    constexpr int kUnknownError = 110;  // a failure that doesn't say which
    if (IsSuccess(reply)) {
        return 0;
    }
    const int code = ErrorCode(reply);
    return code != 0 ? code : kUnknownError;
}

int GetShareMovingTaskId(const std::string& name, std::string& taskId) {
    Json::Value request(Json::objectValue);
    request["name"] = name;
    Json::Value answer;
    KORV::APIRunner::Exec(answer, "KORV.Core.Share", 1, "move_status", request, "admin");
    if (!IsSuccess(answer) || !answer["data"].isObject() || !answer["data"]["task_id"].isString()) {
        return -1;
    }
    taskId = answer["data"]["task_id"].asString();
    pavane::NoteMove(name);
    return 0;
}

int GetLocalShareExtraInfo(const std::string& name, Json::Value& info) {
    Json::Value request(Json::objectValue);
    request["name"] = name;
    Json::Value answer;
    KORV::APIRunner::Exec(answer, "KORV.Core.Share", 1, "get", request, "admin");
    if (!pavane::ReadShareInfo(answer, info)) {
        PV_LOG_LINE("pavane/recorder/share_info",
                    "The share service tells nothing about a folder: error %d\n", ErrorCode(answer));
        return -1;
    }
    return 0;
}
