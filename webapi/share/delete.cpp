// "DelRecShare": removes recording shares, with their folders or keeping them.

#include <algorithm>
#include <list>
#include <map>
#include <string>

#include <json/json.h>

#include "platform/korv/api_runner.h"
#include "platform/korv/filesystem.h"
#include "platform/pavane/archive.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "webapi/share/migrating.h"
#include "webapi/share/share_handler.h"

struct ShareHandler::DeletePlan {
    int usingCams = 0;
    int archiveTasks = 0;
    std::list<int> recordIds;
    std::list<std::string> ownPaths;
    std::map<int, Json::Value> itemsByRv;
    std::list<std::string> shareNames;
    Json::Value remoteMounts{Json::arrayValue};
};

int ShareHandler::PrepareDeleteRemoteRelayParam(const std::map<int, Json::Value>& itemsByRv,
                                                const CmsRelayParams& params, CmsRelayTarget& target) {
    const bool keepFolders = request->GetParam("blKeepOskShare", false).asBool();
    const Json::Value list = request->GetParam("delShareList", Json::Value());
    if (params.isCmsHost && itemsByRv.empty()) {
        return -1;
    }
    target.relayRequest = GetAPIInfo();
    if (!params.isCmsHost) {
        target.relayRequest["delShareList"] = list;
        target.relayRequest["blKeepOskShare"] = keepFolders;
        return 0;
    }
    for (const auto& [rvId, items] : itemsByRv) {
        target.rvIds.push_back(rvId);
        target.relayRequest["delShareList"] = items;
        target.relayRequest["blKeepOskShare"] = keepFolders;
        target.requestByRv[rvId] = target.relayRequest;
    }
    return 0;
}

void ShareHandler::DeleteShareAndUnmountRemote(const std::list<std::string>& shareNames,
                                               const Json::Value& remoteMounts) {
    constexpr int kServiceVersion = 1;
    if (!shareNames.empty()) {
        Json::Value wanted(Json::objectValue);
        for (const std::string& name : shareNames) {
            wanted["name"].append(name);
        }
        Json::Value answer;
        KORV::APIRunner::Exec(answer, "KORV.Core.Share", kServiceVersion, "delete", wanted, "admin");
    }
    for (const Json::Value& mountPoint : remoteMounts) {
        Json::Value wanted(Json::objectValue);
        wanted["mount_type"] = "remote";
        wanted["is_mount_point"] = true;
        wanted["mount_point"] = mountPoint;
        Json::Value answer;
        KORV::APIRunner::Exec(answer, "KORV.Tarsel.Mount", kServiceVersion, "unmount", wanted,
                              request->GetLoginUserName().c_str());
    }
}

// Everything that may refuse a deletion is asked before anything is changed.
bool ShareHandler::IsDeletionRefused(const DeletePlan& plan) {
    if (plan.usingCams >= 1) {
        SetErrorCode(PV_WEBAPI_ERR_SHARE_IN_USE, std::to_string(plan.usingCams), "");
        return true;
    }
    if (plan.archiveTasks >= 1) {
        SetErrorCode(PV_WEBAPI_ERR_SHARE_ARCHIVED, std::to_string(plan.archiveTasks), "");
        return true;
    }
    if (plan.ownPaths.empty()) {
        return false;
    }
    int migrating = 0;
    CountMigratingCamsOnShares(migrating, plan.ownPaths);
    if (migrating >= 1) {
        SetErrorCode(PV_WEBAPI_ERR_SHARE_MIGRATING, std::to_string(migrating), "");
        return true;
    }
    return false;
}

int ShareHandler::DeletePlanned(const DeletePlan& plan, bool keepFolders) {
    if (keepFolders) {
        for (const std::string& path : plan.ownPaths) {
            ArchPullApi::NotifyShareUpdate(SHARE_OPERATION_REC_SHARE_REMOVED, path, "", false);
            TimeLapseApi::NotifyShareUpdate(SHARE_OPERATION_REC_SHARE_REMOVED, path, "", false);
        }
    } else {
        DeleteShareAndUnmountRemote(plan.shareNames, plan.remoteMounts);
    }
    if (DelRecShareById(plan.recordIds) != 0) {
        SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
        return -1;
    }
    const std::string snapshotPath = GetSnapshotSharePath(false);
    const bool hitsSnapshots =
        std::find(plan.ownPaths.begin(), plan.ownPaths.end(), snapshotPath) != plan.ownPaths.end();
    if (hitsSnapshots && HandleSnapshotShareDelete() != 0) {
        SetErrorCode(PV_WEBAPI_ERR_OPERATION_FAILED, "", "");
        return -1;
    }
    return 0;
}

void ShareHandler::AnnounceDeletedShares(const DeletePlan& plan) {
    if (!plan.shareNames.empty()) {
        UpdateBackupInfo({}, plan.shareNames);
        CheckToUpdatePVServiceLink(plan.shareNames);
    }
    std::string names;
    const char* separator = "";
    for (const std::string& path : plan.ownPaths) {
        names += separator + GetBaseName(path);
        separator = ",";
    }
    PVLog(PV_LOG_REC_SHARE_DELETED, request->GetLoginUserName(), 0, {names}, 0);
    PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
}

int ShareHandler::HandleDelRecShare(CmsRelayParams& params, CmsRelayTarget& target, Json::Value& /*data*/) {
    const bool keepFolders = request->GetParam("blKeepOskShare", false).asBool();
    const Json::Value list = request->GetParam("delShareList", Json::Value());
    DeletePlan plan;
    InitDelDataList(list, params, plan.usingCams, plan.archiveTasks, plan.recordIds, plan.ownPaths,
                    plan.itemsByRv, plan.shareNames, plan.remoteMounts);
    if (IsDeletionRefused(plan)) {
        return -1;
    }
    if (params.needRelay) {
        return PrepareDeleteRemoteRelayParam(plan.itemsByRv, params, target);
    }
    if (DeletePlanned(plan, keepFolders) < 0) {
        return -1;
    }
    AnnounceDeletedShares(plan);
    return 0;
}
