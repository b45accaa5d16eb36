// The recorder application beside the record: cameras, services, events, the NAS's paths and environment.

#include "platform/korv/filesystem.h"
#include "platform/korv/process_environment.h"
#include "platform/pavane/camera.h"
#include "platform/pavane/events.h"
#include "platform/pavane/services.h"

#include "tests/fake/director.h"
#include "tests/fake/records.h"

using fake::Args;
using fake::Ask;

namespace {

Json::Value ToArray(const std::list<std::string>& texts) {
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) {
        array.append(text);
    }
    return array;
}

}  // namespace

void PVTaskSet::SetAffinity(const std::string& task) { Ask("PVTaskSet::SetAffinity", Args(task)); }

void DualAuth::CheckToSetEnv(const std::string& cookie, const std::string& sessionId) {
    Ask("DualAuth::CheckToSetEnv", Args(cookie, sessionId));
}

bool IsExistDir(const std::string& path) { return Ask("IsExistDir", Args(path)).asBool(); }
bool IsFileExist(const std::string& path) { return Ask("IsFileExist", Args(path)).asBool(); }
std::string GetBaseName(const std::string& path) { return Ask("GetBaseName", Args(path)).asString(); }
std::string GetDirPath(const std::string& path) { return Ask("GetDirPath", Args(path)).asString(); }

Camera::Camera() = default;
int Camera::GetId() const { return m_id; }
int Camera::GetOwnerRvId() const { return m_ownerRvId; }
const std::string& Camera::GetStoragePath() const { return m_storagePath; }

std::list<Camera> CamGetList(const CamFilterRule& filter, int& count, bool withStatus) {
    const Json::Value reply = Ask("CamGetList", Args(filter.ownerRvId, withStatus));
    count = reply["count"].asInt();
    std::list<Camera> cameras;
    for (const Json::Value& fields : reply["cameras"]) {
        cameras.push_back(fake::ToCamera(fields));
    }
    return cameras;
}

int GetCamOwnerRvId(int camId) { return Ask("GetCamOwnerRvId", Args(camId)).asInt(); }

std::list<Camera> GetCamLocalList(bool enabledOnly, const std::string& name, const std::string& group,
                                  bool withStatus, bool withDeleted) {
    std::list<Camera> cameras;
    for (const Json::Value& fields :
         Ask("GetCamLocalList", Args(enabledOnly, name, group, withStatus, withDeleted))) {
        cameras.push_back(fake::ToCamera(fields));
    }
    return cameras;
}

std::string GetRecMigrateTmpFilePath(int camId) {
    return Ask("GetRecMigrateTmpFilePath", Args(camId)).asString();
}

bool IsPVRunning() { return Ask("IsPVRunning", Args()).asBool(); }

void UpdateBackupInfo(const std::list<std::string>& added, const std::list<std::string>& removed) {
    Ask("UpdateBackupInfo", Args(ToArray(added), ToArray(removed)));
}

int GetLocalShareExtraInfo(const std::string& name, Json::Value& info) {
    const Json::Value reply = Ask("GetLocalShareExtraInfo", Args(name));
    const int result = reply["result"].asInt();
    if (result == 0) {
        info = reply["info"];
    }
    return result;
}

void CheckToUpdatePVServiceLink(const std::string& name) { Ask("CheckToUpdatePVServiceLink", Args(name)); }

void PVLog(PV_LOG_TYPE type, const std::string& user, std::int64_t item, const std::list<std::string>& args,
           int rvId) {
    Ask("PVLog", Args(static_cast<unsigned>(type), user, Json::Int64{item}, ToArray(args), rvId));
}

void PVClientNotify::Notify(CLIENT_NOTIFY_TYPE type) {
    Ask("PVClientNotify::Notify", Args(static_cast<int>(type)));
}
