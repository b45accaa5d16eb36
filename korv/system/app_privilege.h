#pragma once

#include <string>
#include <vector>

// Which account may use which application: the table app_privilege of korv.db.
namespace korv {

// One grant.
//   addressRange  "" = from anywhere, else as AddressRangeText writes it
struct AppPrivilege {
    std::string account;
    std::string app;
    std::string addressRange;
};

// True when the account `user` exists and may use `app` from anywhere; a grant that is bound to an address
// range is not enough. KORV::APIRequest::HasAppPriv.
bool HasAppPrivilege(const std::string& user, const std::string& app);

// All grants, or those of `account` and `app` where these are not empty; by account, application and range.
std::vector<AppPrivilege> ListAppPrivileges(const std::string& account, const std::string& app);

// Adds a grant; one that is there already is left alone.
void GrantAppPrivilege(const AppPrivilege& privilege);

// Removes exactly that grant; false when there was none.
bool RevokeAppPrivilege(const AppPrivilege& privilege);

}  // namespace korv
