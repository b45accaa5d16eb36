// "List": the shared folders of this NAS that could become recording shares, and how much room each offers.

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <list>
#include <string>

#include <json/json.h>

#include "platform/korv/external_disk.h"
#include "platform/korv/share.h"
#include "platform/korv/volume.h"
#include "platform/pavane/json.h"
#include "platform/pavane/rec_share.h"

#include "include/run_as_scope.h"
#include "webapi/share/external_disks.h"
#include "webapi/share/share_handler.h"
#include "webapi/share/share_privilege.h"

namespace {

constexpr unsigned int kBytesToMBShift = 20;
constexpr std::uint64_t kBytesPerMB = std::uint64_t{1} << kBytesToMBShift;
constexpr const char* kShareListSchema =
    "{type: array, element: {type: object, required: {name: string, vol_path: string}}}";

struct CandidateFilter {
    std::string user;
    unsigned int mask;
    bool withRecShares;
    std::list<std::string> recSharePaths;
};

// Folders that the NAS keeps for itself.
bool IsReserved(const std::string& name) {
    return strcasecmp(name.c_str(), "NetBackup") == 0 || strcasecmp(name.c_str(), "homes") == 0;
}

// A negative answer wraps: clients know it as a very large number.
std::uint64_t BtrfsFreeMB(const std::string& volume, const std::string& name, const std::string& user) {
    uid_t uid = 0;
    if (KORVUserGetUGID(user.c_str(), &uid, nullptr) != 0) {
        PV_LOG_SHARE_ERR("GetVolFreeSize", "Failed to get uid of [%s].\n", user.c_str());
        return 0;
    }
    const std::int32_t freeMB = SDKFuncData::GetBtrfsFreeMB(volume + "/" + name, uid);
    return static_cast<std::uint64_t>(std::int64_t{freeMB}) * kBytesPerMB / kBytesPerMB;
}

bool ReadQuota(const std::string& user, const std::string& volume, KORVQUOTA& quota) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        PV_LOG_SHARE_ERR("GetVolFreeSize", "Failed to run as root.\n");
        return false;
    }
    return KORVQuotaGet(user.c_str(), volume.c_str(), &quota) == 0;
}

// "admin", and only that spelling, is not bound by quotas.
std::uint64_t VolumeFreeMB(const std::string& volume, const std::string& user) {
    KORVVOLUME info{};
    if (KORVMountVolInfoGet(volume.c_str(), &info) != 0) {
        PV_LOG_SHARE_ERR("GetVolFreeSize", "Failed to get volume [%s] info.\n", volume.c_str());
        return 0;
    }
    const std::uint64_t volumeFreeMB = info.freeBytes >> kBytesToMBShift;
    if (user == "admin") {
        return volumeFreeMB;
    }
    KORVQUOTA quota{};
    if (!ReadQuota(user, volume, quota)) {
        return 0;
    }
    if (quota.limitMB == 0.0F) {
        return volumeFreeMB;
    }
    const std::uint64_t limitBytes = static_cast<std::uint64_t>(quota.limitMB) * kBytesPerMB;
    if (limitBytes < quota.usedBytes) {
        return 0;
    }
    return std::min(limitBytes - quota.usedBytes, info.freeBytes) >> kBytesToMBShift;
}

std::uint64_t GetVolFreeSize(const std::string& volume, const std::string& name, const std::string& user) {
    return SDKFuncData::IsBtrfs(volume) ? BtrfsFreeMB(volume, name, user) : VolumeFreeMB(volume, user);
}

bool IsCandidate(const std::string& name, const std::string& volume, const CandidateFilter& filter) {
    const std::list<std::string>& taken = filter.recSharePaths;
    if (!filter.withRecShares && std::find(taken.begin(), taken.end(), volume + "/" + name) != taken.end()) {
        return false;
    }
    return !IsReserved(name) && CheckSharePrivilege(name, filter.user, filter.mask) == 0;
}

// Appends this NAS's own folders to `list`; false when the system's list is not to be had.
bool LocalSharesEnum(CandidateFilter& filter, Json::Value& list) {
    Json::Value shares;
    if (GetLocalShareListByWebApi(shares, false) != 0) {
        return false;
    }
    if (PVJson::Validate(kShareListSchema, shares) != 0) {
        PV_LOG_SHARE_ERR("LocalSharesEnum", "Failed to validate webapi share list response data[%s].\n",
                         JsonText(shares).c_str());
        return false;
    }
    if (!filter.withRecShares) {
        filter.recSharePaths = LoadRecSharePath(0);
    }
    for (const Json::Value& share : shares) {
        const std::string name = share["name"].asString();
        const std::string volume = share["vol_path"].asString();
        if (!IsCandidate(name, volume, filter)) {
            continue;
        }
        Json::Value element(Json::objectValue);
        element["freesize"] = static_cast<Json::UInt>(GetVolFreeSize(volume, name, filter.user));
        element["vol_path"] = volume;
        element["display"] = name;
        element["value"] = name;
        element["enable_share_cow"] = share["enable_share_cow"].asBool();
        list.append(element);
    }
    return true;
}

}  // namespace

void ShareHandler::HandleList() {
    constexpr unsigned int kHighestMask = 3;
    const bool localOnly = request->GetParam("blLocalOnly", false).asBool();
    const int sharePriv = request->GetParam("sharePriv", 0).asInt();
    const bool withRecShares = request->GetParam("blIncShareInDB", true).asBool();
    CandidateFilter filter{GetLoginUserName(), static_cast<unsigned int>(sharePriv), withRecShares, {}};
    if (filter.mask < 1 || filter.mask > kHighestMask) {
        response->SetError(PV_WEBAPI_ERR_BAD_PARAMETER, Json::Value());
        return;
    }
    Json::Value data(Json::objectValue);
    data["sharelist"] = Json::Value(Json::arrayValue);
    if (!LocalSharesEnum(filter, data["sharelist"])) {
        response->SetError(PV_WEBAPI_ERR_OPERATION_FAILED, Json::Value());
        return;
    }
    if (!localOnly) {
        ExtShareListEnum(data, filter.user, KORV_EXT_DEVICE_USB, filter.mask);
        ExtShareListEnum(data, filter.user, KORV_EXT_DEVICE_ESATA, filter.mask);
    }
    data["total"] = data["sharelist"].size();
    response->SetSuccess(data);
}
