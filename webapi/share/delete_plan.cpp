// What a deletion of recording shares needs to know before it changes anything.

#include <list>
#include <map>
#include <string>

#include <json/json.h>

#include "platform/pavane/archive.h"
#include "platform/pavane/database.h"
#include "platform/pavane/rec_share.h"

#include "webapi/share/share_handler.h"

namespace {

using TaskCounts = std::map<std::string, int>;

TaskCounts CountArchiveTasksByPath() {
    TaskCounts counts;
    for (const Json::Value& task : ArchPullApi::GetTasks("", ARCH_TASK_ALL)) {
        ++counts[task["storagePath"].asString()];
    }
    return counts;
}

// Cameras that record below `sharePath`. A failed query counts as one: it must block the deletion, not let it
// through.
int CountUsingCameras(int rvId, const std::string& sharePath) {
    constexpr int kOnFailure = 1;
    constexpr const char* kNotUsingStatus = "1";
    if (sharePath.empty()) {
        return 0;
    }
    const std::string statement = "SELECT * from camera WHERE owner_rv_id = " + std::to_string(rvId) +
                                  " AND recording_path LIKE " + PVDB::QuoteEscape(sharePath + "/%") +
                                  " AND rec_storage_status != " + kNotUsingStatus + ";";
    PVDB::DBResult* result = nullptr;
    if (PVDB::Execute(PVDB::DB_DEFAULT, statement, &result, false, true, true, true) != 0) {
        return kOnFailure;
    }
    const int count = PVDBNumRows(result);
    PVDBFreeResult(result);
    return count;
}

// A share that can't be loaded is deleted all the same, so its record stays as it was made.
void LoadOrLog(int shareId, RecShare& share) {
    if (share.Load(shareId) != 0) {
        PV_LOG_SHARE_ERR("InitDelDataList", "Failed to load share [%d]\n", shareId);
    }
}

// The mount point as the mount service names it: what follows the volume in the path.
void AppendRemoteMount(const RecShare& share, Json::Value& remoteMounts) {
    const std::string& path = share.GetPath();
    const std::string& volume = share.GetVolume();
    const std::string::size_type found = path.find(volume);
    if (found != std::string::npos) {
        remoteMounts.append(path.substr(found + volume.size()));
    }
}

}  // namespace

void ShareHandler::InitDelDataList(const Json::Value& list, const CmsRelayParams& params, int& usingCams,
                                   int& archiveTasks, std::list<int>& recordIds,
                                   std::list<std::string>& ownPaths, std::map<int, Json::Value>& requestByRv,
                                   std::list<std::string>& shareNames, Json::Value& remoteMounts) {
    TaskCounts tasks = CountArchiveTasksByPath();
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const Json::Value& item = list[i];  // throws for an object: its members are no list of shares
        const int shareId = item["shareId"].asInt();
        const int shareRvId = item["shareRvId"].asInt();
        const std::string sharePath = item["sharePath"].asString();
        usingCams += CountUsingCameras(shareRvId, sharePath);
        archiveTasks += tasks[sharePath];
        if (usingCams >= 1 || archiveTasks >= 1) {
            continue;
        }
        RecShare share;
        if (params.relayedFromHost) {
            if (share.LoadByIdOnRec(shareId, GetSlaveRVId()) == 0) {
                recordIds.push_back(share.GetId());
            }
            continue;
        }
        recordIds.push_back(shareId);
        LoadOrLog(shareId, share);
        if (shareRvId >= 1) {
            Json::Value relayed = item;
            relayed["shareId"] = share.GetIdOnRec();
            relayed["shareRvId"] = 0;
            requestByRv[shareRvId].append(relayed);
            continue;
        }
        ownPaths.push_back(share.GetPath());
        if (share.GetMountType() != SHARE_MOUNT_LOCAL) {
            AppendRemoteMount(share, remoteMounts);
        } else {
            shareNames.push_back(share.GetName());
        }
    }
}
