#include "tests/fake/functions.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace fake {

namespace {

constexpr const char* kNever = nullptr;  // no way to fail
constexpr bool kQuietly = false;         // a failure looks like a plain answer

// In the order in which the table reads best.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Row {
    const char* name;
    Kind kind;
    const char* argNames;  // separated by blanks
    const char* benign;    // JSON
    const char* failing;   // JSON
    bool tellsFailure = true;
};

constexpr Kind kCall = Kind::kCall;
constexpr Kind kBackground = Kind::kBackground;

const Row kRows[] = {
    // the NAS
    {"KORV::APIRunner::Exec", kCall, "api version method request user", R"({"success": true})",
     R"({"success": false, "error": {"code": 110}})"},
    {"SDKUser::AppPrivUserHas", kCall, "user app ip", "true", "false"},
    {"PVTaskSet::SetAffinity", kBackground, "task", "null", kNever},
    {"DualAuth::CheckToSetEnv", kBackground, "cookie sessionId", "null", kNever},
    {"IsExistDir", kBackground, "path", "false", "false"},
    {"GetDirPath", kBackground, "path", "\"\"", kNever},
    {"IsFileExist", kBackground, "path", "false", "false"},
    {"GetBaseName", kBackground, "path", "\"\"", kNever},
    // shared folders and external disks
    {"KORVShareGet", kBackground, "name", R"({"result": 0, "path": ""})", R"({"result": -1, "path": ""})"},
    {"KLIBShareUserRightGet", kBackground, "user name", "3", "-1"},
    {"GetLocalShareListByWebApi", kBackground, "withState", R"({"result": 0, "list": []})",
     R"({"result": -1, "list": null})"},
    {"KORVUserGetUGID", kCall, "user wantsGid", R"({"result": 0, "uid": 1000})",
     R"({"result": -1, "uid": 0})"},
    {"KORVMountVolInfoGet", kCall, "path", R"({"result": 0, "total": 0, "free": 0})",
     R"({"result": -1, "total": 0, "free": 0})"},
    {"KORVQuotaGet", kCall, "user volume", R"({"result": 0, "limitMB": 0.0, "used": 0})",
     R"({"result": -1, "limitMB": 0.0, "used": 0})"},
    {"SDKFuncData::IsBtrfs", kBackground, "volume", "false", "false", kQuietly},
    {"SDKFuncData::GetBtrfsFreeMB", kCall, "path uid", "0", "-1", kQuietly},
    {"KORVUSBDevEnum", kCall, "type hasBuffer capacity", R"({"count": 0, "size": 0, "names": []})",
     R"({"count": -1, "size": 0, "names": []})"},
    {"KORVExtStgPartsVolInfoGet", kCall, "device isUsb",
     R"({"result": 0, "description": "", "partitions": []})",
     R"({"result": -1, "description": "", "partitions": []})"},
    {"KLIBCFileCheckKeyValue", kCall, "path key value flags", "1", "0"},
    {"PVFileGetVal", kCall, "path key", R"({"result": 4, "value": "done"})",
     R"({"result": -1, "value": ""})"},
    {"PVJson::Validate", kBackground, "schema value", "0", "-1"},
    {"GetLocalMountedFolderByWebApi", kBackground, "withState", R"({"result": 0, "mounts": []})",
     R"({"result": -1, "mounts": null})"},
    {"GetMntPointFSInfo", kCall, "mountPoint", R"({"result": 0, "fsType": 11, "sizeMB": 1024})",
     R"({"result": -1, "fsType": -1, "sizeMB": 0})"},
    {"GetRemoteMountStatus", kCall, "path", "0", "-1"},
    {"KORVShareEncExportKeySaltGet", kBackground, "", R"("salt")", kNever},
    {"KORVShareEncKeyFileRead", kCall, "path salt size", R"({"result": 0, "key": "key"})",
     R"({"result": -1, "key": ""})"},
    {"KLIBCErrGet", kCall, "", "0", kNever},
    // central management
    {"IsCmsHost", kBackground, "", "false", "false", kQuietly},
    {"IsCmsPaired", kBackground, "", "false", "false", kQuietly},
    {"IsEnableCms", kBackground, "", "false", "false", kQuietly},
    {"GetRecServerOwnStatus", kBackground, "", "0", "1", kQuietly},
    {"SlaveRV::Load", kBackground, "id", R"({"result": 0, "server": {}})", R"({"result": -1, "server": {}})"},
    {"SlaveRvGetList", kBackground, "rvId", R"({"result": 0, "servers": []})",
     R"({"result": -1, "servers": []})"},
    {"GetSlaveRvIdList", kBackground, "enabledOnly onlineOnly withFailover withoutOwner sameVersion", "[]",
     "[]"},
    {"GetSlaveRVById", kBackground, "id", R"({"result": 0, "server": {}})", R"({"result": 1, "server": {}})"},
    {"SlaveRVMgr::SlaveRVMgr", kBackground, "load", "[]", "[]"},
    {"IsRvOnlineSts", kBackground, "status", "true", "false"},
    {"IsRvOnline", kBackground, "rvId", "true", "false", kQuietly},
    {"IsRunTimeFailoverRv", kBackground, "rvId", "false", "true", kQuietly},
    {"SendWebAPIToHost", kCall, "request binary wait_s progress retries",
     R"({"result": 0, "reply": {"success": true}})", R"({"result": -1, "reply": null})"},
    {"SendWebAPIToRecServerByJson", kCall, "rvId request binary",
     R"({"result": 0, "reply": {"success": true}})", R"({"result": -1, "reply": null})"},
    {"IsAuthPairMatch", kCall, "pairKey stamp", "true", "false"},
    {"SlaveRVAuthentication::IsAuthByPairMatch", kCall, "pairKey stamp", "true", "false"},
    // the recorder application
    {"IsPVRunning", kBackground, "", "true", "false"},
    {"CamGetList", kBackground, "ownerRvId withStatus", R"({"cameras": [], "count": 0})",
     R"({"cameras": [], "count": 0})"},
    {"GetCamOwnerRvId", kBackground, "camId", "0", "-1"},
    {"GetCamLocalList", kBackground, "enabledOnly name group withStatus withDeleted", "[]", "[]", kQuietly},
    {"GetRecMigrateTmpFilePath", kBackground, "camId", "\"\"", kNever},
    {"LoadAllUsingCam", kCall, "shareId withStatus before", R"({"result": 0, "cameras": []})",
     R"({"result": -1, "cameras": []})"},
    {"CheckRecShareStatus", kCall, "id", "0", "-1"},
    {"ApplicationTraits", kBackground, "", "[]", "[]", kQuietly},
    {"RecShare::Load", kBackground, "id", R"({"result": 0, "record": {}})",
     R"({"result": -1, "record": {}})"},
    {"RecShare::LoadByIdOnRec", kBackground, "idOnRec ownerRvId", R"({"result": 0, "record": {}})",
     R"({"result": -1, "record": {}})"},
    {"RecShare::LoadByPath", kBackground, "path ownerRvId", R"({"result": 0, "record": {}})",
     R"({"result": -1, "record": {}})"},
    {"RecShare::Save", kCall, "id setters", R"({"result": 0, "id": 1})", R"({"result": -1, "id": null})"},
    {"DelRecShareById", kCall, "ids", "0", "-1"},
    {"UpdateShareMountInfo", kCall, "status id refreshFacts onlyIfChanged", "null", kNever},
    {"LoadRecShareFromDB", kBackground, "rvId", "[]", "[]"},
    {"LoadRecSharePath", kBackground, "rvId", "[]", "[]"},
    {"UpdateBackupInfo", kCall, "added removed", "null", kNever},
    {"GetLocalShareExtraInfo", kCall, "name",
     R"({"result": 0, "info": {"fs_type": 1, "vol_size_mb": 1024, "is_share_moving": false, "encryption": 0}})",
     R"({"result": -1, "info": null})"},
    {"CheckToUpdatePVServiceLink", kCall, "name", "null", kNever},
    {"GetShareMovingTaskId", kCall, "name", R"({"result": 0, "taskId": "task"})",
     R"({"result": -1, "taskId": ""})"},
    {"GetSnapshotSharePath", kBackground, "create", "\"\"", "\"\"", kQuietly},
    {"HandleSnapshotShareDelete", kCall, "", "0", "-1"},
    {"ArchPullApi::GetTasks", kBackground, "server type", "[]", "[]", kQuietly},
    {"ArchPullApi::NotifyShareUpdate", kCall, "operation path newPath afterwards", "null", kNever},
    {"TimeLapseApi::NotifyShareUpdate", kCall, "operation path newPath afterwards", "null", kNever},
    {"PvRotateApi::StartRotate", kCall, "rvId", "null", kNever},
    {"PVLog", kCall, "type user item args rvId", "null", kNever},
    {"PVClientNotify::Notify", kCall, "type", "null", kNever},
    // the database
    {"PVDB::Execute", kCall, "instance statement multiple retryOnBusy logFailure reconnect",
     R"({"result": 0, "rows": []})", R"({"result": 1, "rows": []})"},
    {"PVDB::QuoteEscape", kBackground, "text", "\"\"", kNever},
    // the operating system
    {"geteuid", kBackground, "", "0", kNever},
    {"getegid", kBackground, "", "0", kNever},
    {"setresuid", kCall, "ruid euid suid", "0", "-1"},
    {"setresgid", kCall, "rgid egid sgid", "0", "-1"},
    {"syslog", kCall, "priority text", "null", kNever},
    {"sleep", kCall, "seconds", "0", kNever},
    {"statfs64", kCall, "path", R"({"result": 0, "bsize": 4096, "blocks": 0, "bavail": 0})",
     R"({"result": -1, "bsize": 0, "blocks": 0, "bavail": 0})"},
    {"calloc", kBackground, "count size", "true", "false"},
    // a handler that the scenario itself plays, to drive the relay
    {"Probe::Action", kCall, "flags target data",
     R"({"returns": 0, "error": [], "relayRequest": null, "rvIds": [], "requestByRv": {}, "stopOnHostError": false, "data": null})",
     kNever},
    {"Probe::PreCheck", kCall, "flags", R"({"returns": 0, "error": [], "clear": []})", kNever},
    {"Probe::PostStep", kCall, "flags target ok", R"({"returns": 0, "error": []})", kNever},
};

Json::Value FromText(const char* text) {
    Json::Value value;
    std::istringstream in(text);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) {
        throw std::logic_error(std::string("function table: ") + text + ": " + errors);
    }
    return value;
}

std::vector<FunctionTraits> ReadRows() {
    std::vector<FunctionTraits> functions;
    for (const Row& row : kRows) {
        FunctionTraits& function = functions.emplace_back();
        function.name = row.name;
        function.kind = row.kind;
        std::istringstream names(row.argNames);
        for (std::string name; names >> name;) {
            function.argNames.push_back(name);
        }
        function.benign = FromText(row.benign);
        function.canFail = row.failing != nullptr;
        function.failing = function.canFail ? FromText(row.failing) : Json::Value();
        function.tellsFailure = row.tellsFailure;
    }
    return functions;
}

}  // namespace

const std::vector<FunctionTraits>& AllFunctions() {
    static const std::vector<FunctionTraits> functions = ReadRows();
    return functions;
}

const FunctionTraits* FindFunction(const std::string& name) {
    const std::vector<FunctionTraits>& all = AllFunctions();
    const auto found = std::find_if(
        all.begin(), all.end(), [&name](const FunctionTraits& function) { return function.name == name; });
    return found != all.end() ? &*found : nullptr;
}

}  // namespace fake
