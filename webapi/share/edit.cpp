// "EditRecShare": renames, describes, hides, encrypts and limits a local recording share.

#include <unistd.h>

#include <string>

#include <json/json.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/filesystem.h"
#include "platform/pavane/archive.h"
#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "webapi/share/relay_params.h"
#include "webapi/share/share_handler.h"

namespace {

// True once the move has visibly started or ended. "progressing" is looked up one "data" deeper than its
// neighbours; that is intended: the share service wraps that state, and only that one, once more.
bool IsMoveUnderWayOrOver(const Json::Value& response) {
    const Json::Value& data = response["data"];
    return data["data"]["status"] == "progressing" || data["status"] == "cancelled" || data["finish"] == true;
}

// Lets a change of encryption return only when the NAS's move of the folder has started, ended, or a while
// has passed.
void CheckToWaitShareMigrateStart(const std::string& name) {
    constexpr int kMaxPolls = 10;
    constexpr int kServiceVersion = 1;
    constexpr unsigned int kPause_s = 1;
    std::string taskId;
    if (GetShareMovingTaskId(name, taskId) != 0) {
        return;
    }
    Json::Value wanted(Json::objectValue);
    wanted["task_id"] = taskId;
    for (int poll = 0; poll < kMaxPolls; ++poll) {
        Json::Value response;
        KORV::APIRunner::Exec(response, "KORV.Core.Share", kServiceVersion, "move_status", wanted, "admin");
        PV_LOG_AT(LOG_CATEG_SHARE, LOG_LEVEL_TRACE, kShareSource, __LINE__, "CheckToWaitShareMigrateStart",
                  "Share [%s] moving status: [%s] (taskId: [%s])\n", name.c_str(), JsonText(response).c_str(),
                  taskId.c_str());
        if (!IsSuccess(response)) {
            PV_LOG_SHARE_ERR("CheckToWaitShareMigrateStart",
                             "Failed to get poll share [%s] moving status with resp [%s].\n", name.c_str(),
                             JsonText(response).c_str());
            return;
        }
        if (IsMoveUnderWayOrOver(response)) {
            return;
        }
        sleep(kPause_s);
    }
}

}  // namespace

struct ShareHandler::EditRequest {
    int ownerRvId;
    int shareId;
    int recLimitGB;
    bool recLimit;
    bool hidden;
    bool encryption;
    std::string encPasswd;
    std::string name;
    std::string description;
};

ShareHandler::EditRequest ShareHandler::ReadEditRequest() {
    constexpr int kDefaultRecLimitGB = 100;
    EditRequest edit{};
    edit.ownerRvId = request->GetParam("rvId", 0).asInt();
    edit.shareId = request->GetParam("shareId", -1).asInt();
    edit.recLimitGB = request->GetParam("recLimitGB", kDefaultRecLimitGB).asInt();
    edit.recLimit = request->GetParam("blRecLimit", false).asBool();
    edit.hidden = request->GetParam("blHideShare", true).asBool();
    edit.encryption = request->GetParam("blEncryption", false).asBool();
    edit.encPasswd = request->GetParam("encPasswd", "").asString();
    edit.name = request->GetParam("shareName", "").asString();
    edit.description = request->GetParam("description", "").asString();
    return edit;
}

int ShareHandler::PrepareEditRelay(const EditRequest& edit, const RecShare& share,
                                   const CmsRelayParams& params, CmsRelayTarget& target) {
    if (edit.ownerRvId == 0 && params.isCmsHost) {
        return -1;
    }
    target.relayRequest = GetAPIInfo();
    FillShareRelayParam(target, edit.hidden, edit.encryption, edit.recLimit, edit.recLimitGB, edit.name,
                        edit.description, edit.encPasswd);
    target.relayRequest["shareId"] = params.isCmsHost ? share.GetIdOnRec() : share.GetId();
    if (params.isCmsHost) {
        target.rvIds.push_back(edit.ownerRvId);
        target.requestByRv[edit.ownerRvId] = target.relayRequest;
    }
    return 0;
}

int ShareHandler::EditFolder(const EditRequest& edit, const RecShare& share, const std::string& newPath) {
    const std::string& oldName = share.GetName();
    if (edit.name != oldName && IsExistDir(newPath)) {
        SetErrorCode(PV_WEBAPI_ERR_SHARE_EXISTS, "", "");
        return -1;
    }
    if (DoEditShare(edit.hidden, share.GetVolume(), oldName, edit.name, edit.description, edit.encryption,
                    edit.encPasswd) < 0) {
        return -1;
    }
    CheckToUpdatePVServiceLink({oldName, edit.name});
    return 0;
}

int ShareHandler::EditHere(const EditRequest& edit, RecShare& share) {
    const std::string newPath = "/" + share.GetVolume() + "/" + edit.name;
    if (edit.ownerRvId == 0 && EditFolder(edit, share, newPath) < 0) {
        return -1;
    }
    share.SetName(edit.name);
    share.SetPath(newPath);
    share.SetDescription(edit.description);
    share.SetHidden(edit.hidden);
    share.EnableRecLimit(edit.recLimit);
    share.SetRecLimitGB(edit.recLimitGB);
    share.Save();
    if (edit.recLimit) {
        PvRotateApi::StartRotate(0);
    }
    const bool encrypted = share.GetEncType() != SHARE_ENC_NONE;
    if (edit.ownerRvId == 0 && edit.encryption != encrypted) {
        CheckToWaitShareMigrateStart(share.GetName());
    }
    return 0;
}

int ShareHandler::HandleEditRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& /*data*/) {
    constexpr int kNotLoaded = -1;
    EditRequest edit = ReadEditRequest();
    RecShare share;
    int loaded = 0;
    if (params.relayedFromHost) {
        edit.ownerRvId = GetSlaveRVId();
        loaded = share.LoadByIdOnRec(edit.shareId, edit.ownerRvId);
    } else {
        loaded = share.Load(edit.shareId);
    }
    if (loaded == kNotLoaded || share.GetMountType() != SHARE_MOUNT_LOCAL) {
        PV_LOG_SHARE_ERR("HandleEditRecShare",
                         "Failed to edit share [%d] with load ret [%d], mnt type [%d]\n", edit.shareId,
                         loaded, static_cast<int>(share.GetMountType()));
        SetErrorCode(PV_WEBAPI_ERR_BAD_PARAMETER, "", "");
        return -1;
    }
    return params.needRelay ? PrepareEditRelay(edit, share, params, target) : EditHere(edit, share);
}
