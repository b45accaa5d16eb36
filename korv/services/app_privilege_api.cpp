// The web API "KORV.Core.AppPriv": who may use which application, and from where.

#include <algorithm>
#include <optional>
#include <string>

#include "platform/korv/api_table.h"

#include "korv/framework/builtin_tables.h"
#include "korv/services/request_values.h"
#include "korv/services/share_error.h"
#include "korv/system/accounts.h"
#include "korv/system/address_range.h"
#include "korv/system/app_privilege.h"

namespace {

constexpr const char* kApi = "KORV.Core.AppPriv";
constexpr std::size_t kLongestApp = 64;

bool IsAppName(const std::string& app) {
    const auto isAllowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '_' || c == '-';
    };
    return !app.empty() && app.size() <= kLongestApp && std::all_of(app.begin(), app.end(), isAllowed);
}

// The one text of a range; none when it can't be read. "" is a range too: from anywhere.
std::optional<std::string> RangeText(const std::string& text) {
    if (text.empty()) {
        return text;
    }
    const auto range = korv::ParseAddressRange(text);
    return range ? std::optional(korv::AddressRangeText(*range)) : std::nullopt;
}

// Reads "user", "app" and "address_range" into `privilege`: 0, or the code of what is wrong.
int ReadPrivilege(const KORV::APIRequest& request, korv::AppPrivilege& privilege) {
    const Json::Value params = korv::ParamsOf(request);
    privilege.account = korv::StringOf(params, "user", "");
    privilege.app = korv::StringOf(params, "app", "");
    const auto range = RangeText(korv::StringOf(params, "address_range", ""));
    if (!IsAppName(privilege.app)) {
        return korv::kAppPrivilegeAppRefused;
    }
    if (!range) {
        return korv::kAppPrivilegeRangeRefused;
    }
    privilege.addressRange = *range;
    return 0;
}

void Grant(KORV::APIRequest* request, KORV::APIResponse* response) {
    korv::AppPrivilege privilege;
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    int error = ReadPrivilege(*request, privilege);
    if (error == 0 && !korv::FindUser(privilege.account)) {
        error = korv::kAppPrivilegeAccountUnknown;
    }
    if (error != 0) {
        response->SetError(error, Json::Value());
        return;
    }
    korv::GrantAppPrivilege(privilege);
    response->SetSuccess(Json::Value());
}

// Also for an account that is gone: what it was granted can still be taken away.
void Revoke(KORV::APIRequest* request, KORV::APIResponse* response) {
    korv::AppPrivilege privilege;
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    if (const int error = ReadPrivilege(*request, privilege); error != 0) {
        response->SetError(error, Json::Value());
        return;
    }
    if (!korv::RevokeAppPrivilege(privilege)) {
        response->SetError(korv::kAppPrivilegeUnknown, Json::Value());
        return;
    }
    response->SetSuccess(Json::Value());
}

void List(KORV::APIRequest* request, KORV::APIResponse* response) {
    if (!korv::AdmitAdministrator(*request, *response)) {
        return;
    }
    const Json::Value params = korv::ParamsOf(*request);
    Json::Value rows(Json::arrayValue);
    for (const korv::AppPrivilege& each :
         korv::ListAppPrivileges(korv::StringOf(params, "user", ""), korv::StringOf(params, "app", ""))) {
        Json::Value row(Json::objectValue);
        row["user"] = each.account;
        row["app"] = each.app;
        row["address_range"] = each.addressRange;
        rows.append(row);
    }
    Json::Value data(Json::objectValue);
    data["total"] = rows.size();
    data["privileges"] = std::move(rows);
    response->SetSuccess(data);
}

}  // namespace

const KORV::APITableRow* korv::AppPrivilegeTable() {
    static constexpr KORV::APITableRow kTable[] = {
        {kApi, 1, "grant", Grant},
        {kApi, 1, "revoke", Revoke},
        {kApi, 1, "list", List},
        {nullptr, 0, nullptr, nullptr},
    };
    return kTable;
}
