// "CreateRecShare": makes a folder of a local volume a recording share, a new folder or one that exists.

#include <algorithm>
#include <cstdint>
#include <list>
#include <string>

#include <json/json.h>

#include "platform/korv/filesystem.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "webapi/share/relay_params.h"
#include "webapi/share/share_handler.h"

struct ShareHandler::CreateRequest {
    bool adoptExisting;
    bool hidden;
    bool encryption;
    bool recLimit;
    int recLimitGB;
    std::string encPasswd;
    std::string name;
    std::string volume;
    std::string description;
    int ownerRvId;
    std::string path;
};

ShareHandler::CreateRequest ShareHandler::ReadCreateRequest(CmsRelayParams& params) {
    constexpr int kDefaultRecLimitGB = 100;
    CreateRequest create{};
    create.adoptExisting = request->GetParam("blAddExistShare", false).asBool();
    create.hidden = request->GetParam("blHideShare", true).asBool();
    create.encryption = request->GetParam("blEncryption", false).asBool();
    create.recLimit = request->GetParam("blRecLimit", false).asBool();
    create.recLimitGB = request->GetParam("recLimitGB", kDefaultRecLimitGB).asInt();
    create.encPasswd = request->GetParam("encPasswd", "").asString();
    create.name = request->GetParam("shareName", "").asString();
    create.volume = request->GetParam("volume", "").asString();
    create.description = request->GetParam("description", "").asString();
    create.path = create.volume + "/" + create.name;
    create.ownerRvId = GetShareOwnerRvId(params);
    return create;
}

int ShareHandler::PrepareCreateRelay(const CreateRequest& create, const CmsRelayParams& params,
                                     CmsRelayTarget& target) {
    if (create.ownerRvId == 0 && params.isCmsHost) {
        return -1;
    }
    target.relayRequest = GetAPIInfo();
    FillShareRelayParam(target, create.hidden, create.encryption, create.recLimit, create.recLimitGB,
                        create.name, create.description, create.encPasswd);
    target.relayRequest["blAddExistShare"] = create.adoptExisting;
    target.relayRequest["volume"] = create.volume;
    if (params.isCmsHost) {
        target.rvIds.push_back(create.ownerRvId);
        target.requestByRv[create.ownerRvId] = target.relayRequest;
    }
    return 0;
}

int ShareHandler::CreateOrAdoptFolder(const CreateRequest& create) {
    if (!create.adoptExisting) {
        if (IsExistDir(create.path)) {
            SetErrorCode(PV_WEBAPI_ERR_SHARE_EXISTS, "", "");
            return -1;
        }
        return DoCreateShare(create.hidden, create.name, create.volume, create.description, create.encryption,
                             create.encPasswd);
    }
    const std::list<std::string> known = LoadRecSharePath(0);
    if (std::find(known.begin(), known.end(), create.path) != known.end() || !IsExistDir(create.path)) {
        SetErrorCode(PV_WEBAPI_ERR_SHARE_FAILED, "", "");
        return -1;
    }
    return 0;
}

int ShareHandler::CreateOnThisServer(const CreateRequest& create, ShareFacts& facts) {
    if (CreateOrAdoptFolder(create) < 0 || SetSharePermission(create.name) < 0) {
        return -1;
    }
    UpdateBackupInfo({create.name}, {});
    Json::Value info;
    GetLocalShareExtraInfo(create.name, info);
    facts.fsType = info["fs_type"].asInt();
    facts.totalSizeMB = info["vol_size_mb"].asUInt64();
    facts.migrating = info["is_share_moving"].asBool();
    facts.encType = info["encryption"].asInt();
    return 0;
}

void ShareHandler::AnnounceCreatedShare(const CreateRequest& create) {
    PVLog(PV_LOG_REC_SHARE_CREATED, request->GetLoginUserName(), 0, {create.name}, 0);
    CheckToUpdatePVServiceLink(create.name);
    PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
}

// What the owning server has answered about the share it has made; a host's record copies it.
void ShareHandler::ReadReportedFacts(const Json::Value& results, int ownerRvId, ShareFacts& facts) {
    const std::string owner = std::to_string(ownerRvId);
    if (!results.isMember(owner)) {
        return;
    }
    const Json::Value& reported = results[owner]["data"];
    facts.idOnRec = reported["id"].asInt();
    facts.fsType = reported["fsType"].asInt();
    facts.totalSizeMB = reported["totalSize"].asUInt64();
    facts.migrating = reported["blMigrating"].asBool();
    facts.encType = reported["encType"].asInt();
}

void ShareHandler::FillCreatedShare(const RecShare& share, Json::Value& data) {
    data["id"] = share.GetId();
    data["fsType"] = static_cast<int>(share.GetFsType());
    data["totalSize"] = Json::UInt64{share.GetTotalSizeMB()};
    data["blMigrating"] = share.GetMigrating();
    data["encType"] = static_cast<int>(share.GetEncType());
}

int ShareHandler::HandleCreateRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& data) {
    const CreateRequest create = ReadCreateRequest(params);
    if (params.needRelay) {
        return PrepareCreateRelay(create, params, target);
    }
    ShareFacts facts;
    if (create.ownerRvId == 0 && CreateOnThisServer(create, facts) < 0) {
        return -1;
    }
    ReadReportedFacts(target.results, create.ownerRvId, facts);

    RecShare share;
    share.SetName(create.name);
    share.SetPath(create.path);
    share.SetVolume(
        GetDirPath(create.path).substr(1));  // throws for a folder at the root: its volume has no name
    share.SetOwnerRvId(create.ownerRvId);
    share.SetIdOnRec(facts.idOnRec);
    share.SetDescription(create.description);
    share.SetHidden(create.hidden);
    share.SetFsType(static_cast<_tag_FSTYPE>(facts.fsType));
    share.SetTotalSizeMB(facts.totalSizeMB);
    share.SetMigrating(facts.migrating);
    share.SetEncType(static_cast<SHARE_ENC_TYPE>(facts.encType));
    share.EnableRecLimit(create.recLimit);
    share.SetRecLimitGB(create.recLimitGB);
    share.Save();

    if (create.ownerRvId == 0) {
        AnnounceCreatedShare(create);
    }
    FillCreatedShare(share, data);
    return 0;
}
