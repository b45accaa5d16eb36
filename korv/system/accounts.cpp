#include "korv/system/accounts.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "platform/korv/volume.h"

#include "korv/framework/log.h"
#include "korv/framework/request_scope.h"

namespace korv {

namespace {

constexpr std::size_t kFirstBuffer = 1024;
constexpr std::size_t kLargestBuffer = std::size_t{16} * 1024 * 1024;  // a group may have many members
constexpr std::size_t kFirstGroups = 64;

// Names that no name service can hold are not asked for: a NUL would cut them short and find another account.
bool IsUsableName(const std::string& name) { return !name.empty() && name.find('\0') == std::string::npos; }

// Calls one of the getXXnam_r functions with a buffer that grows until its entry fits. False when there is no
// such entry. The entry's texts live in `buffer`.
template <class Entry>
bool LookUp(int (*get)(const char*, Entry*, char*, std::size_t, Entry**), const std::string& name,
            Entry& entry, std::vector<char>& buffer) {
    buffer.resize(kFirstBuffer);
    while (true) {
        Entry* found = nullptr;
        const int failure = get(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (failure == 0 || failure == ENOENT || failure == ESRCH) {
            return found != nullptr;
        }
        if (failure == ERANGE && buffer.size() < kLargestBuffer) {
            buffer.resize(buffer.size() * 2);
        } else if (failure != EINTR) {
            throw std::system_error(failure, std::generic_category(), "the name service failed");
        }
    }
}

}  // namespace

std::optional<UserAccount> FindUser(const std::string& name) {
    passwd entry{};
    std::vector<char> buffer;
    if (!IsUsableName(name) || !LookUp(getpwnam_r, name, entry, buffer)) {
        return std::nullopt;
    }
    return UserAccount{entry.pw_name, entry.pw_uid, entry.pw_gid};
}

std::optional<GroupAccount> FindGroup(const std::string& name) {
    group entry{};
    std::vector<char> buffer;
    if (!IsUsableName(name) || !LookUp(getgrnam_r, name, entry, buffer)) {
        return std::nullopt;
    }
    return GroupAccount{entry.gr_name, entry.gr_gid};
}

std::vector<gid_t> GroupsOf(const UserAccount& user) {
    std::vector<gid_t> groups(kFirstGroups);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(user.name.c_str(), user.primaryGid, groups.data(), &count) < 0) {
        groups.resize(std::max(groups.size() * 2, static_cast<std::size_t>(count)));
        count = static_cast<int>(groups.size());
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

const std::optional<Membership>& FindMembership(const std::string& user) {
    static std::uint64_t request = 0;
    static std::string name;
    static std::optional<Membership> membership;
    if (request == 0 || request != CurrentRequest() || name != user) {
        request = 0;  // what was known is forgotten also when asking fails
        const auto account = FindUser(user);
        membership = account ? std::optional(Membership{*account, GroupsOf(*account)}) : std::nullopt;
        name = user;
        request = CurrentRequest();
    }
    return membership;
}

bool IsAdministrator(const std::string& user) {
    const auto account = FindUser(user);
    const auto administrators = FindGroup(kAdministratorsGroup);
    if (!account || !administrators) {
        return false;
    }
    const std::vector<gid_t> groups = GroupsOf(*account);
    return std::find(groups.begin(), groups.end(), administrators->gid) != groups.end();
}

}  // namespace korv

int KORVUserGetUGID(const char* user, uid_t* uid, gid_t* gid) {
    try {
        const auto& membership = korv::FindMembership(user);
        if (!membership) {
            return -1;
        }
        *uid = membership->account.uid;
        if (gid != nullptr) {
            *gid = membership->account.primaryGid;
        }
        return 0;
    } catch (const std::system_error& failure) {
        korv::LogLine(std::string("an account can't be looked up: ") + failure.what());
        return -1;
    }
}
