// "ListUsingCam": the cameras that record into a share.

#include <list>

#include <json/json.h>

#include "platform/pavane/camera.h"
#include "platform/pavane/cms.h"
#include "platform/pavane/rec_share.h"

#include "webapi/share/migrating.h"
#include "webapi/share/share_handler.h"

// The owning server's own error reaches the caller unchanged.
bool ShareHandler::AskOwnerWhetherMigrating(const RecShare& share) {
    const int owner = share.GetOwnerRvId();
    Json::Value wanted(Json::objectValue);
    wanted["api"] = request->GetAPIClass();
    wanted["method"] = "CheckStorageMigrating";
    wanted["version"] = 1;
    wanted["shareId"] = share.GetIdOnRec();
    Json::Value reply;
    if (SendWebAPIToRecServerByJson(owner, wanted, false, reply) != 0) {
        PV_LOG_SHARE_ERR("HandleListUsingCam", "Failed to send cmd to rv[%d].\n", owner);
        SetErrorCode(PV_WEBAPI_ERR_RV_UNREACHABLE, "", "");
        return false;
    }
    if (reply.isMember("error")) {
        const Json::Value& error = reply["error"];
        const Json::Value& params = error["errors"];
        SetErrorCode(static_cast<PV_WEBAPI_ERR_CODE>(error["code"].asInt()), params["param1"].asString(),
                     params["param2"].asString());
        return false;
    }
    return true;
}

bool ShareHandler::MayListCameras(int shareId) {
    RecShare share;
    if (share.Load(shareId) != 0) {
        SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
        return false;
    }
    if (share.GetOwnerRvId() != 0) {
        return AskOwnerWhetherMigrating(share);
    }
    int count = 0;
    CountMigratingCamsOnShares(count, {share.GetPath()});
    if (count >= 1) {
        SetErrorCode(PV_WEBAPI_ERR_SHARE_MIGRATING, std::to_string(count), "");
        return false;
    }
    return true;
}

// Cameras that can't be read are answered as none; that is intended, the platform has logged why.
void ShareHandler::FillUsingCams(int shareId, Json::Value& data) {
    std::list<Camera> cameras;
    LoadAllUsingCam(cameras, shareId, false);
    for (const Camera& camera : cameras) {
        Json::Value element(Json::objectValue);
        element["name"] = camera.GetName();
        element["occupied"] = camera.GetOccupied();
        element["ip"] = camera.GetIp();
        element["is_rotated_by_space"] = camera.IsRotatedBySpace();
        element["rotation_by_space"] = camera.GetRotationBySpace();
        data["camList"].append(element);
    }
    data["total"] = static_cast<Json::UInt>(cameras.size());
}

// A share without cameras is answered without "camList", and an owner's error whose code is 0 with nothing at
// all: clients rely on it.
void ShareHandler::HandleListUsingCam() {
    const bool checkMigrating = request->GetParam("blCheckMigrating", false).asBool();
    const int shareId = request->GetParam("shareId", -1).asInt();
    Json::Value data(Json::objectValue);
    if (shareId < 0) {
        SetErrorCode(PV_WEBAPI_ERR_BAD_PARAMETER, "", "");
    } else if (!checkMigrating || MayListCameras(shareId)) {
        FillUsingCams(shareId, data);
    }
    AnswerUnlessFailed(data);
}
