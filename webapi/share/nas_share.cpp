// Shared folders of the NAS, through its own share service.

#include <string>

#include <json/json.h>

#include "platform/korv/api_runner.h"

#include "webapi/share/share_handler.h"

namespace {

constexpr const char* kShareApi = "KORV.Core.Share";
constexpr const char* kPermissionApi = "KORV.Core.Share.Permission";
constexpr int kServiceVersion = 1;
// The share services run as the NAS's own administrator, whoever asks.
constexpr const char* kServiceUser = "admin";

bool IsFailed(const Json::Value& response) { return response.isMember("error"); }

int ServiceErrorCode(const Json::Value& response) { return response["error"]["code"].asInt(); }

PV_WEBAPI_ERR_CODE FromShareServiceCode(int code) {
    switch (code) {
        case kShareServiceNameTaken:
            return PV_WEBAPI_ERR_SHARE_EXISTS;
        case kShareServiceEncryption:
            return PV_WEBAPI_ERR_SHARE_ENCRYPTION;
        default:
            return PV_WEBAPI_ERR_SHARE_FAILED;
    }
}

// Lets one user or group write into the shared folder `name`. 0 or -1; the caller says which error that is.
int SendSetShareWebapi(const std::string& name, const std::string& userGroupType,
                       const std::string& principal) {
    Json::Value permission(Json::objectValue);
    permission["name"] = principal;
    permission["is_deny"] = false;
    permission["is_readonly"] = false;
    permission["is_writable"] = true;
    Json::Value request(Json::objectValue);
    request["name"] = name;
    request["user_group_type"] = userGroupType;
    request["permissions"].append(permission);

    Json::Value response;
    KORV::APIRunner::Exec(response, kPermissionApi, kServiceVersion, "set", request, kServiceUser);
    if (!IsFailed(response)) {
        return 0;
    }
    PV_LOG_SHARE_ERR("SendSetShareWebapi", "Failed to set share permission. error[%d]\n",
                     ServiceErrorCode(response));
    return -1;
}

}  // namespace

int ShareHandler::DoCreateShare(bool hidden, const std::string& name, const std::string& volPath,
                                const std::string& desc, bool encryption, const std::string& encPasswd) {
    Json::Value wanted(Json::objectValue);
    wanted["name"] = name;
    Json::Value& info = wanted["shareinfo"];
    info["name"] = name;
    info["desc"] = desc;
    info["hidden"] = hidden;
    info["vol_path"] = volPath;
    info["enable_fileindex"] = false;
    info["enable_share_cow"] = false;
    if (encryption) {
        info["encryption"] = true;
        info["enc_passwd"] = encPasswd;
    }
    info["advanceperm"]["disable_modify"] = true;

    Json::Value answer;
    KORV::APIRunner::Exec(answer, kShareApi, kServiceVersion, "create", wanted, kServiceUser);
    if (!IsFailed(answer)) {
        return 0;
    }
    const int code = ServiceErrorCode(answer);
    PV_LOG_SHARE_ERR("DoCreateShare", "Failed to create share with error[%d], param [%s]\n", code,
                     JsonText(wanted).c_str());
    SetErrorCode(FromShareServiceCode(code), "", "");
    return -1;
}

// Unlike a creation, an edit always says whether the folder is encrypted, and names its volume without a
// slash.
int ShareHandler::DoEditShare(bool hidden, const std::string& volume, const std::string& name,
                              const std::string& newName, const std::string& desc, bool encryption,
                              const std::string& encPasswd) {
    Json::Value wanted(Json::objectValue);
    wanted["name"] = name;
    Json::Value& info = wanted["shareinfo"];
    info["name"] = newName;
    info["desc"] = desc;
    info["hidden"] = hidden;
    info["vol_path"] = "/" + volume;
    info["encryption"] = encryption;
    info["enc_passwd"] = encryption ? encPasswd : "";

    Json::Value answer;
    KORV::APIRunner::Exec(answer, kShareApi, kServiceVersion, "set", wanted, kServiceUser);
    if (!IsFailed(answer)) {
        return 0;
    }
    const int code = ServiceErrorCode(answer);
    PV_LOG_SHARE_ERR("DoEditShare", "Failed to edit share with error[%d], param [%s]\n", code,
                     JsonText(wanted).c_str());
    SetErrorCode(FromShareServiceCode(code), "", "");
    return -1;
}

int ShareHandler::SetSharePermission(const std::string& name) {
    if (SendSetShareWebapi(name, "system", kPavaneUser) != 0 ||
        SendSetShareWebapi(name, "local_group", "administrators") != 0) {
        SetErrorCode(PV_WEBAPI_ERR_SHARE_FAILED, "", "");
        return -1;
    }
    return 0;
}
