// "ReconnetRemoteMount": mounts a remote recording share again. The method's name is spelled as clients call
// it.

#include <string>

#include <json/json.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/mount.h"
#include "platform/pavane/rec_share.h"

#include "webapi/share/share_handler.h"

// The mount service's own code reaches the caller, without parameters; the new state is recorded after the
// answer.
void ShareHandler::HandleReconnetRemoteMount() {
    constexpr int kServiceVersion = 1;
    const std::string path = request->GetParam("mount_point", "").asString();
    RecShare share;
    if (share.LoadByPath(path, 0) != 0) {
        SetErrorCode(PV_WEBAPI_ERR_BAD_PARAMETER, "", "");
        WriteErrorResponse(Json::Value());
        return;
    }
    if (share.GetMountType() == SHARE_MOUNT_LOCAL) {
        response->SetSuccess(Json::Value());
        return;
    }
    SHARE_MOUNT_STATUS outcome = SHARE_MOUNT_NORMAL;
    if (GetRemoteMountStatus(path) != 0) {
        Json::Value wanted(Json::objectValue);
        wanted["mount_point"].append(path);
        Json::Value answer;
        KORV::APIRunner::Exec(answer, "KORV.Tarsel.Mount.List", kServiceVersion, "reconnect", wanted,
                              request->GetLoginUserName().c_str());
        const Json::Value& reply = answer;
        if (reply["success"] != true) {
            outcome = SHARE_MOUNT_FAILED;
            const bool hasCode = reply.isMember("error");
            response->SetError(hasCode ? reply["error"]["code"].asInt() : PV_WEBAPI_ERR_OPERATION_FAILED,
                               Json::Value());
        }
    }
    UpdateShareMountInfo(outcome, share, true, false);
    if (outcome == SHARE_MOUNT_NORMAL) {
        response->SetSuccess(Json::Value());
    }
}
