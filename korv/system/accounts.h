#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

// The accounts and groups of this machine, from wherever its name service switch takes them.
namespace korv {

// The group whose members administer this machine.
inline constexpr const char* kAdministratorsGroup = "administrators";

struct UserAccount {
    std::string name;
    uid_t uid = 0;
    gid_t primaryGid = 0;
};

struct GroupAccount {
    std::string name;
    gid_t gid = 0;
};

// The account of that exact name; none for an unknown or unusable name. Throws std::system_error when the
// name service cannot be asked, so that a failed look-up never reads as "no such account".
std::optional<UserAccount> FindUser(const std::string& name);
std::optional<GroupAccount> FindGroup(const std::string& name);

// Ids of all groups that the user belongs to, the primary group included.
std::vector<gid_t> GroupsOf(const UserAccount& user);

// An account with all its groups.
struct Membership {
    UserAccount account;
    std::vector<gid_t> groups;
};

// FindUser and GroupsOf in one. A request asks the name service once for its user, however many shares it
// looks at; what changes meanwhile counts from the next request on. The reference is valid until the next
// call.
const std::optional<Membership>& FindMembership(const std::string& user);

// True when the account `user` exists and belongs to the group `administrators`. Nothing but membership
// counts here: that a call made in-process as "admin" is an administrator's is for the framework to say,
// since it alone knows where a call comes from.
bool IsAdministrator(const std::string& user);

}  // namespace korv
