// What the life of a share asks for: moves, snapshots, archive and time-lapse services, rotation.

#include "platform/pavane/archive.h"
#include "platform/pavane/services.h"

#include "tests/fake/director.h"

using fake::Args;
using fake::Ask;

void CheckToUpdatePVServiceLink(const std::list<std::string>& names) {
    Json::Value list(Json::arrayValue);
    for (const std::string& name : names) {
        list.append(name);
    }
    Ask("CheckToUpdatePVServiceLink", Args(list));
}

int GetShareMovingTaskId(const std::string& name, std::string& taskId) {
    const Json::Value reply = Ask("GetShareMovingTaskId", Args(name));
    const int result = reply["result"].asInt();
    if (result == 0) {
        taskId = reply["taskId"].asString();
    }
    return result;
}

std::string GetSnapshotSharePath(bool create) { return Ask("GetSnapshotSharePath", Args(create)).asString(); }

int HandleSnapshotShareDelete() { return Ask("HandleSnapshotShareDelete", Args()).asInt(); }

// Answers are read as the platform reads them; that is no call worth a line.
bool IsSuccess(const Json::Value& reply) { return reply.isObject() && reply["success"] == true; }

int GetAPIErrCode(const Json::Value& reply) {
    return IsSuccess(reply) || !reply.isObject() ? 0 : reply["error"]["code"].asInt();
}

Json::Value ArchPullApi::GetTasks(const std::string& server, ARCH_TASK_TYPE type) {
    return Ask("ArchPullApi::GetTasks", Args(server, static_cast<int>(type)));
}

void ArchPullApi::NotifyShareUpdate(SHARE_OPERATION operation, const std::string& path,
                                    const std::string& newPath, bool afterwards) {
    Ask("ArchPullApi::NotifyShareUpdate", Args(static_cast<int>(operation), path, newPath, afterwards));
}

void TimeLapseApi::NotifyShareUpdate(SHARE_OPERATION operation, const std::string& path,
                                     const std::string& newPath, bool afterwards) {
    Ask("TimeLapseApi::NotifyShareUpdate", Args(static_cast<int>(operation), path, newPath, afterwards));
}

void PvRotateApi::StartRotate(int rvId) { Ask("PvRotateApi::StartRotate", Args(rvId)); }
