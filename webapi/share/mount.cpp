// Remote folders: mounting them through the NAS's mount service, and whether a mount point can be used.

#include <algorithm>
#include <array>
#include <list>
#include <string>

#include <json/json.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/filesystem.h"
#include "platform/pavane/rec_share.h"

#include "include/run_as_scope.h"
#include "webapi/share/share_handler.h"

namespace {

// The mount service's codes from kFirstServiceCode on, as this API's own; every other code is a failed mount
// point.
constexpr int kFirstServiceCode = 410;
constexpr int kMountFailed = PV_WEBAPI_ERR_MOUNT_POINT;
constexpr std::array<int, 32> kMountCodes = {
    491,          kMountFailed, kMountFailed, kMountFailed, kMountFailed, kMountFailed, kMountFailed,
    kMountFailed, kMountFailed, kMountFailed, kMountFailed, 492,          493,          kMountFailed,
    494,          495,          kMountFailed, 496,          486,          497,          498,
    kMountFailed, 499,          500,          485,          501,          502,          kMountFailed,
    503,          504,          505,          506,
};

PV_WEBAPI_ERR_CODE FromMountServiceCode(int code) {
    const unsigned int index = static_cast<unsigned int>(code) - kFirstServiceCode;
    return static_cast<PV_WEBAPI_ERR_CODE>(index < kMountCodes.size() ? kMountCodes[index] : kMountFailed);
}

}  // namespace

// The mount service has names of its own for three of the parameters.
int ShareHandler::DoMount(SHARE_MOUNT_TYPE mountType) {
    constexpr int kServiceVersion = 1;
    Json::Value wanted(Json::objectValue);
    if (mountType == SHARE_MOUNT_CIFS) {
        wanted["mount_type"] = "CIFS";
        wanted["account"] = request->GetParam("account", "").asString();
        wanted["passwd"] = request->GetParam("passwd", "").asString();
    } else if (mountType == SHARE_MOUNT_NFS) {
        wanted["mount_type"] = "NFS";
        wanted["nfs_version"] = request->GetParam("nfs_version", "").asString();
        wanted["protocol"] = request->GetParam("protocol", "").asString();
    } else {
        return -1;
    }
    wanted["user_set"] = request->GetParam("user_set", true).asBool();
    wanted["server_ip"] = request->GetParam("mountSource", "").asString();
    wanted["mount_point"] = request->GetParam("mountPath", "").asString();
    wanted["auto_mount"] = request->GetParam("blAutoMount", false).asBool();
    wanted["adv_opt"] = request->GetParam("adv_opt", "").asString();

    Json::Value reply;
    KORV::APIRunner::Exec(reply, "KORV.Tarsel.Mount", kServiceVersion, "mount_remote", wanted,
                          request->GetLoginUserName().c_str());
    const Json::Value& answer = reply;
    if (answer["success"].asBool()) {
        return 0;
    }
    PV_LOG_SHARE_ERR("DoMount", "Error response : %s\n", JsonText(answer).c_str());
    SetErrorCode(FromMountServiceCode(answer["error"]["code"].asInt()), "", "");
    return -1;
}

int ShareHandler::CheckShareAvailable() {
    const std::list<std::string> taken = LoadRecSharePath(0);
    const auto mountType = static_cast<SHARE_MOUNT_TYPE>(request->GetParam("mountType", 0).asInt());
    const bool needMount = request->GetParam("blNeedMount", false).asBool();
    const std::string mountPoint = request->GetParam("mountPoint", "").asString();
    if (std::find(taken.begin(), taken.end(), mountPoint) != taken.end()) {
        SetErrorCode(PV_WEBAPI_ERR_MOUNT_POINT, "", "");
        return -1;
    }
    if (needMount && DoMount(mountType) != 0) {
        return -1;
    }
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        PV_LOG_SHARE_ERR("CheckShareAvailable", "Failed to run as root .\n");
        SetErrorCode(PV_WEBAPI_ERR_MOUNT_POINT, "", "");
        return -1;
    }
    if (!IsExistDir(mountPoint)) {
        SetErrorCode(PV_WEBAPI_ERR_MOUNT_POINT, "", "");
        return -1;
    }
    return 0;
}
