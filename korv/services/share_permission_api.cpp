// The web API "KORV.Core.Share.Permission": who may read and write a shared folder.

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <soci/soci.h>

#include "platform/korv/api_table.h"
#include "platform/korv/filesystem.h"

#include "korv/framework/builtin_tables.h"
#include "korv/framework/log.h"
#include "korv/services/request_values.h"
#include "korv/services/share_error.h"
#include "korv/services/share_recovery.h"
#include "korv/system/accounts.h"
#include "korv/system/bounded_call.h"
#include "korv/system/database.h"
#include "korv/system/share_rights.h"
#include "korv/system/share_store.h"

namespace {

constexpr const char* kApi = "KORV.Core.Share.Permission";

// A request that can't be granted as it stands.
struct Refusal {
    int code = 0;
    Json::Value data;
};

// Users of the system and those that people made are the same to a folder.
std::optional<bool> IsGroupKind(const std::string& kind) {
    if (kind == "local_group") {
        return true;
    }
    return kind == "local_user" || kind == "system" ? std::optional(false) : std::nullopt;
}

Json::Value Named(const std::string& principal) {
    Json::Value data(Json::objectValue);
    data["name"] = principal;
    return data;
}

// Reads one element of "permissions" into `grant`. Access control lists have no way of denying one principal
// what another entry gives, so that "is_deny" is refused rather than half done.
std::optional<Refusal> ReadGrant(const Json::Value& element, bool isGroup, korv::ShareGrant& grant) {
    if (!element.isObject()) {
        Json::throwLogicError("permissions holds something that is no object");
    }
    grant.isGroup = isGroup;
    grant.principal = korv::StringOf(element, "name", "");
    const bool isWritable = korv::BoolOf(element, "is_writable", false);
    grant.isReadOnly = !isWritable;
    const bool grantsNothing = !isWritable && !korv::BoolOf(element, "is_readonly", false);
    if (korv::BoolOf(element, "is_deny", false) || grantsNothing) {
        return Refusal{korv::kShareRightRefused, Named(grant.principal)};
    }
    const bool isKnown =
        isGroup ? korv::FindGroup(grant.principal).has_value() : korv::FindUser(grant.principal).has_value();
    return isKnown ? std::nullopt
                   : std::optional(Refusal{korv::kSharePrincipalUnknown, Named(grant.principal)});
}

// Reads all of them; nothing is granted when one is refused.
std::optional<Refusal> ReadGrants(const Json::Value& params, std::vector<korv::ShareGrant>& grants) {
    const auto isGroup = IsGroupKind(korv::StringOf(params, "user_group_type", ""));
    for (const Json::Value& element : korv::ArrayOf(params, "permissions")) {
        korv::ShareGrant& grant = grants.emplace_back();
        if (auto refusal = ReadGrant(element, isGroup.value_or(false), grant); isGroup && refusal) {
            return refusal;
        }
    }
    return isGroup ? std::nullopt : std::optional(Refusal{korv::kSharePrincipalKindUnknown, {}});
}

int ErrorOf(const std::system_error& error) {
    switch (error.code().value()) {
        case ENOSPC:
        case EDQUOT:
            return korv::kShareNoSpace;
        case EROFS:
        case ENODEV:
            return korv::kShareVolumeUnusable;
        default:
            return korv::kShareFailed;
    }
}

// 0, or the code of what went wrong, which is logged.
int Grant(const korv::ShareRow& share, const std::vector<korv::ShareGrant>& grants) {
    const auto log = [&share](const std::string& reason) {
        korv::LogLine("rights on the share " + share.Path() + " were not granted: " + reason);
    };
    try {
        korv::GrantShareRights(share, grants);
        return 0;
    } catch (const std::system_error& error) {
        log(error.what());
        return ErrorOf(error);
    } catch (const soci::soci_error& error) {
        log(error.get_error_message());
        const bool isFull = korv::IsOutOfSpace(korv::Database(), error);
        return isFull ? korv::kShareNoSpace : korv::kShareFailed;
    }
}

void Set(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const Json::Value params = korv::ParamsOf(*request);
    const std::string name = korv::StringOf(params, "name", "");
    std::vector<korv::ShareGrant> grants;
    const auto refusal = ReadGrants(params, grants);
    korv::RecoverDeadMakers();
    const auto share = korv::FindShare(name);
    if (!share) {
        response->SetError(korv::kShareUnknown, Json::Value());
        return;
    }
    if (refusal) {
        response->SetError(refusal->code, refusal->data);
        return;
    }
    // The folder is opened with korv.db locked: one that doesn't answer would hold everybody up.
    if (IsExistDir(share->Path()) && korv::IsSilent(share->Path())) {
        response->SetError(korv::kShareVolumeUnusable, Json::Value());
        return;
    }
    if (const int failure = Grant(*share, grants); failure != 0) {
        response->SetError(failure, Json::Value());
        return;
    }
    response->SetSuccess(Json::Value());
}

}  // namespace

const KORV::APITableRow* korv::SharePermissionTable() {
    static constexpr KORV::APITableRow kTable[] = {
        {kApi, 1, "set", Set},
        {nullptr, 0, nullptr, nullptr},
    };
    return kTable;
}
