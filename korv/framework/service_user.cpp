#include "korv/framework/service_user.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "platform/korv/configuration.h"

#include "korv/framework/log.h"

namespace korv {

UserIds IdsOf(const std::string& account) {
    const passwd* const entry = getpwnam(account.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("there is no account '" + account + "' on this machine");
    }
    return {entry->pw_uid, entry->pw_gid};
}

void LowerToServiceUser() {
    constexpr uid_t kKeepUid = static_cast<uid_t>(-1);
    constexpr gid_t kKeepGid = static_cast<gid_t>(-1);
    const std::string& account = KORV::GetConfiguration().serviceUser;
    const UserIds ids = IdsOf(account);
    if (initgroups(account.c_str(), ids.gid) != 0 || setresgid(kKeepGid, ids.gid, kKeepGid) != 0 ||
        setresuid(kKeepUid, ids.uid, kKeepUid) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot lower the ids to " + account);
    }
}

void RaiseToRoot() noexcept {
    constexpr uid_t kKeepUid = static_cast<uid_t>(-1);
    constexpr gid_t kKeepGid = static_cast<gid_t>(-1);
    if (setresuid(kKeepUid, 0, kKeepUid) != 0 || setresgid(kKeepGid, 0, kKeepGid) != 0) {
        LogLine("a worker could not become root again before its end");
    }
}

}  // namespace korv
