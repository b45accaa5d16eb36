// The web API "KORV.Core.Share": the machine's shared folders.

#include <algorithm>
#include <map>
#include <string>

#include "platform/korv/api_table.h"
#include "platform/korv/configuration.h"

#include "korv/framework/builtin_tables.h"
#include "korv/framework/log.h"
#include "korv/services/request_values.h"
#include "korv/services/share_change_api.h"
#include "korv/services/share_error.h"
#include "korv/services/share_recovery.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/samba_export.h"
#include "korv/system/share_creation.h"
#include "korv/system/share_name.h"
#include "korv/system/share_store.h"
#include "korv/system/volume.h"

namespace {

constexpr const char* kApi = "KORV.Core.Share";

bool IsConfiguredVolume(const std::string& path) {
    const auto& volumes = KORV::GetConfiguration().volumes;
    return std::find(volumes.begin(), volumes.end(), path) != volumes.end();
}

bool IsUsableVolume(const std::string& path) {
    return IsConfiguredVolume(path) && korv::ProbeVolume(path).isWritable;
}

korv::ShareRow WantedShare(const Json::Value& params) {
    const Json::Value info = korv::ObjectOf(params, "shareinfo");
    korv::ShareRow share;
    share.name = korv::StringOf(params, "name", "");
    if (korv::StringOf(info, "name", share.name) != share.name) {
        Json::throwLogicError("a new share has one name");
    }
    share.volPath = korv::StringOf(info, "vol_path", "");
    share.description = korv::StringOf(info, "desc", "");
    share.isHidden = korv::BoolOf(info, "hidden", false);
    share.isCow = korv::BoolOf(info, "enable_share_cow", true);
    share.isFileIndexed = korv::BoolOf(info, "enable_fileindex", false);
    share.encryption = korv::BoolOf(info, "encryption", false) ? korv::ShareEncryption::kLocked
                                                               : korv::ShareEncryption::kNone;
    share.isModifyDisabled = korv::BoolOf(korv::ObjectOf(info, "advanceperm"), "disable_modify", false);
    return share;
}

int ErrorOf(korv::CreationEnd end) {
    switch (end) {
        case korv::CreationEnd::kNameTaken:
            return korv::kShareNameTaken;
        case korv::CreationEnd::kVolumeUnusable:
            return korv::kShareVolumeUnusable;
        case korv::CreationEnd::kNoSpace:
            return korv::kShareNoSpace;
        case korv::CreationEnd::kEncryptionRefused:
            return korv::kShareEncryptionRefused;
        default:
            return korv::kShareFailed;
    }
}

// 0 when `share` may be made.
int Refusal(const korv::ShareRow& share) {
    if (!korv::IsValidShareName(share.name)) {
        return korv::kShareNameRefused;
    }
    return IsUsableVolume(share.volPath) ? 0 : korv::kShareVolumeUnusable;
}

void Create(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const Json::Value params = korv::ParamsOf(*request);
    const korv::ShareRow share = WantedShare(params);
    if (const int refusal = Refusal(share); refusal != 0) {
        response->SetError(refusal, Json::Value());
        return;
    }
    korv::RecoverDeadMakers();
    const korv::CreationOutcome outcome =
        korv::CreateShare(share, {}, korv::StringOf(korv::ObjectOf(params, "shareinfo"), "enc_passwd", ""));
    if (!outcome.reason.empty()) {
        korv::LogLine("the share " + share.Path() + " was not made: " + outcome.reason);
    }
    if (outcome.end != korv::CreationEnd::kCreated) {
        response->SetError(ErrorOf(outcome.end), Json::Value());
        return;
    }
    if (const std::string trouble = korv::ExportSharesToSamba(); !trouble.empty()) {
        korv::LogLine("the share " + share.Path() + " is made but not exported: " + trouble);
    }
    Json::Value data(Json::objectValue);
    data["name"] = share.name;
    response->SetSuccess(data);
}

// `volumes` keeps what was seen of each volume for the length of one request.
Json::Value ShareData(const korv::ShareRow& share, std::map<std::string, korv::Volume>& volumes) {
    auto volume = volumes.find(share.volPath);
    if (volume == volumes.end()) {
        volume = volumes.emplace(share.volPath, korv::ProbeVolume(share.volPath)).first;
    }
    Json::Value data(Json::objectValue);
    data["name"] = share.name;
    data["vol_path"] = share.volPath;
    data["path"] = share.Path();
    data["desc"] = share.description;
    data["hidden"] = share.isHidden;
    data["encryption"] = static_cast<int>(korv::EncryptionOf(share));
    data["enable_share_cow"] = share.isCow;
    data["is_share_moving"] = share.isMoving;
    data["fs_type"] = static_cast<int>(volume->second.type);
    data["vol_size_mb"] = Json::UInt64(volume->second.sizeMb);
    return data;
}

void Get(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const auto share = korv::FindShare(korv::StringOf(korv::ParamsOf(*request), "name", ""));
    if (!share) {
        response->SetError(korv::kShareUnknown, Json::Value());
        return;
    }
    std::map<std::string, korv::Volume> volumes;
    response->SetSuccess(ShareData(*share, volumes));
}

void List(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    std::map<std::string, korv::Volume> volumes;
    Json::Value shares(Json::arrayValue);
    for (const korv::ShareRow& share : korv::ListShares()) {
        shares.append(ShareData(share, volumes));
    }
    Json::Value data(Json::objectValue);
    data["total"] = shares.size();
    data["shares"] = std::move(shares);
    response->SetSuccess(data);
}

}  // namespace

const KORV::APITableRow* korv::ShareTable() {
    static constexpr KORV::APITableRow kTable[] = {
        {kApi, 1, "create", Create},
        {kApi, 1, "get", Get},
        {kApi, 1, "list", List},
        {kApi, 1, "set", korv::SetShare},
        {kApi, 1, "delete", korv::DeleteShares},
        {kApi, 1, "move_status", korv::GetMoveStatus},
        {nullptr, 0, nullptr, nullptr},
    };
    return kTable;
}
