// "CreateRemoteRecShare": adopts a remote folder, mounted inside a shared folder, as a recording share.

#include <cstdint>
#include <string>

#include <json/json.h>

#include "platform/korv/filesystem.h"
#include "platform/korv/mount.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "webapi/share/mount_point_path.h"
#include "webapi/share/share_handler.h"

struct ShareHandler::CreateRemoteRequest {
    bool autoMount;
    int mountType;
    std::string mountPoint;
    std::string mountSource;
    std::string shareName;
    std::string volume;
    int ownerRvId;
};

namespace {

// The depth of a mount point below its volume is bounded; a path without a volume is refused elsewhere.
bool IsTooLong(const std::string& mountPoint) {
    constexpr int kLongestBelowVolume = 200;
    std::string volume;
    if (GetVolumeNameFromPath(mountPoint, volume) != 0) {
        return false;
    }
    return static_cast<int>(mountPoint.size() - 1 - volume.size()) > kLongestBelowVolume;
}

}  // namespace

int ShareHandler::GetShareOwnerRvId(CmsRelayParams& params) {
    return params.actFromHost ? GetSlaveRVId() : request->GetParam("rvId", 0).asInt();
}

// "server_ip" repeats the mount source under the mount service's name and "auto_mount" has a parameter of its
// own; recording servers of every version expect both.
int ShareHandler::PrepareCreateRemoteRelayParam(int rvId, bool isCmsHost, CmsRelayTarget& target) {
    if (isCmsHost && rvId == 0) {
        return -1;
    }
    target.relayRequest = GetAPIInfo();
    Json::Value& relayed = target.relayRequest;
    relayed["blAutoMount"] = request->GetParam("blAutoMount", false).asBool();
    relayed["mountType"] = request->GetParam("mountType", 0).asInt();
    relayed["mountPoint"] = request->GetParam("mountPoint", "").asString();
    relayed["mountSource"] = request->GetParam("mountSource", "").asString();
    relayed["rvId"] = 0;
    relayed["blNeedMount"] = request->GetParam("blNeedMount", false).asBool();
    relayed["account"] = request->GetParam("account", "").asString();
    relayed["passwd"] = request->GetParam("passwd", "").asString();
    relayed["nfs_version"] = request->GetParam("nfs_version", "").asString();
    relayed["protocol"] = request->GetParam("protocol", "").asString();
    relayed["user_set"] = request->GetParam("user_set", true).asBool();
    relayed["server_ip"] = request->GetParam("mountSource", "").asString();
    relayed["mountPath"] = request->GetParam("mountPath", "").asString();
    relayed["auto_mount"] = request->GetParam("auto_mount", false).asBool();
    relayed["adv_opt"] = request->GetParam("adv_opt", "").asString();
    if (isCmsHost) {
        target.rvIds.push_back(rvId);
        target.requestByRv[rvId] = relayed;
    }
    return 0;
}

// 0 when the request can be acted on or relayed; -1 with the error set.
int ShareHandler::ReadCreateRemoteRequest(CmsRelayParams& params, CreateRemoteRequest& create) {
    create.autoMount = request->GetParam("blAutoMount", false).asBool();
    create.mountType = request->GetParam("mountType", 0).asInt();
    create.mountPoint = request->GetParam("mountPoint", "").asString();
    create.mountSource = request->GetParam("mountSource", "").asString();
    if (create.mountPoint.empty() || create.mountSource.empty() || IsTooLong(create.mountPoint) ||
        (create.mountType != SHARE_MOUNT_NFS && create.mountType != SHARE_MOUNT_CIFS)) {
        SetErrorCode(PV_WEBAPI_ERR_BAD_PARAMETER, "", "");
        return -1;
    }
    create.ownerRvId = GetShareOwnerRvId(params);
    if (GetShareNameFromPath(create.mountPoint, create.shareName) != 0) {
        SetErrorCode(PV_WEBAPI_ERR_NOT_IN_SHARE, "", "");
        return -1;
    }
    if (GetVolumeNameFromPath(create.mountPoint, create.volume) != 0) {
        SetErrorCode(PV_WEBAPI_ERR_BAD_PARAMETER, "", "");
        return -1;
    }
    return 0;
}

int ShareHandler::AdoptMountPoint(const CreateRemoteRequest& create, ShareFacts& facts) {
    if (CheckShareAvailable() != 0) {
        return -1;
    }
    if (SetSharePermission(create.shareName) < 0) {
        SetErrorCode(PV_WEBAPI_ERR_MOUNT_POINT, "", "");
        return -1;
    }
    auto fsType = static_cast<_tag_FSTYPE>(facts.fsType);
    GetMntPointFSInfo(create.mountPoint, fsType, facts.totalSizeMB);
    facts.fsType = fsType;
    return 0;
}

int ShareHandler::HandleCreateRemoteRecShare(CmsRelayParams& params, CmsRelayTarget& target,
                                             Json::Value& data) {
    CreateRemoteRequest create{};
    if (ReadCreateRemoteRequest(params, create) < 0) {
        return -1;
    }
    if (params.needRelay) {
        return PrepareCreateRemoteRelayParam(create.ownerRvId, params.isCmsHost, target);
    }
    ShareFacts facts;
    if (create.ownerRvId == 0 && AdoptMountPoint(create, facts) < 0) {
        return -1;
    }
    ReadReportedFacts(target.results, create.ownerRvId, facts);

    RecShare share;
    share.SetName(GetBaseName(create.mountPoint));
    share.SetPath(create.mountPoint);
    share.SetVolume(create.volume);
    share.SetOwnerRvId(create.ownerRvId);
    share.SetIdOnRec(facts.idOnRec);
    share.SetMountSource(create.mountSource);
    share.SetMountType(static_cast<SHARE_MOUNT_TYPE>(create.mountType));
    share.SetAutoMount(create.autoMount);
    share.SetFsType(static_cast<_tag_FSTYPE>(facts.fsType));
    share.SetTotalSizeMB(facts.totalSizeMB);
    share.SetMigrating(facts.migrating);
    share.SetEncType(static_cast<SHARE_ENC_TYPE>(facts.encType));
    share.Save();

    if (create.ownerRvId == 0) {
        PVLog(PV_LOG_REC_SHARE_CREATED, request->GetLoginUserName(), 0, {share.GetName()}, 0);
        PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
    }
    FillCreatedShare(share, data);
    return 0;
}
