#pragma once

#include <string>

// Which user may use which application, as the NAS's administrator has granted it.
class SDKUser {
public:
    // True when `user` may use the application `app` (e.g. "KORV.KRX.Pavane") when calling from the address
    // `ip` (text; a grant may be bound to an address range). False for unknown users, applications and
    // addresses that cannot be read. Reads korv.db; blocks for one indexed query. Implemented in
    // korv/system/app_privilege.cpp.
    static bool AppPrivUserHas(const std::string& user, const std::string& app, const std::string& ip);
};
