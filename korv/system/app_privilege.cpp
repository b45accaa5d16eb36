#include "korv/system/app_privilege.h"

#include <soci/soci.h>

#include "platform/korv/app_privilege.h"

#include "korv/system/accounts.h"
#include "korv/system/address_range.h"
#include "korv/system/database.h"

namespace {

constexpr const char* kAnywhere = "";

// The ranges that `user` may use `app` from; empty when the account is gone, whatever was granted to it once.
std::vector<std::string> RangesOf(const std::string& user, const std::string& app) {
    std::vector<std::string> ranges;
    if (!korv::FindUser(user)) {
        return ranges;
    }
    for (const korv::AppPrivilege& each : korv::ListAppPrivileges(user, app)) {
        ranges.push_back(each.addressRange);
    }
    return ranges;
}

}  // namespace

// A call without an address was made in-process: only a grant that is bound to no address covers it.
bool SDKUser::AppPrivUserHas(const std::string& user, const std::string& app, const std::string& ip) {
    if (user.empty() || app.empty()) {
        return false;
    }
    const auto address = korv::ParseAddress(ip);
    if (!address && !ip.empty()) {
        return false;
    }
    for (const std::string& text : RangesOf(user, app)) {
        if (text == kAnywhere) {
            return true;
        }
        const auto range = korv::ParseAddressRange(text);
        if (range && address && korv::Contains(*range, *address)) {
            return true;
        }
    }
    return false;
}

namespace korv {

bool HasAppPrivilege(const std::string& user, const std::string& app) {
    return SDKUser::AppPrivUserHas(user, app, "");
}

std::vector<AppPrivilege> ListAppPrivileges(const std::string& account, const std::string& app) {
    AppPrivilege row;
    soci::session& database = Database();
    soci::statement statement =
        (database.prepare << "select account, app, address_range from app_privilege"
                             " where (:account = '' or account = :account) and (:app = '' or app = :app)"
                             " order by account, app, address_range",
         soci::use(account, "account"), soci::use(app, "app"), soci::into(row.account), soci::into(row.app),
         soci::into(row.addressRange));
    statement.execute();
    std::vector<AppPrivilege> privileges;
    while (statement.fetch()) {
        privileges.push_back(row);
    }
    return privileges;
}

void GrantAppPrivilege(const AppPrivilege& privilege) {
    WriteTransaction transaction(Database());
    Database() << "insert or ignore into app_privilege (account, app, address_range)"
                  " values (:account, :app, :address_range)",
        soci::use(privilege.account), soci::use(privilege.app), soci::use(privilege.addressRange);
    transaction.Commit();
}

bool RevokeAppPrivilege(const AppPrivilege& privilege) {
    WriteTransaction transaction(Database());
    soci::statement statement =
        (Database().prepare << "delete from app_privilege"
                               " where account = :account and app = :app and address_range = :address_range",
         soci::use(privilege.account), soci::use(privilege.app), soci::use(privilege.addressRange));
    statement.execute(true);
    const bool removed = statement.get_affected_rows() > 0;
    statement.clean_up();
    transaction.Commit();
    return removed;
}

}  // namespace korv
