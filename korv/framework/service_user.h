#pragma once

#include <string>

#include <sys/types.h>

namespace korv {

struct UserIds {
    uid_t uid = 0;
    gid_t gid = 0;
};

// The ids of an account; throws std::runtime_error when it does not exist.
UserIds IdsOf(const std::string& account);

// Gives the process the groups, effective gid and effective uid of the configured service user. Real and
// saved ids stay root's, so that a root scope can open. Throws std::system_error when that fails.
void LowerToServiceUser();

// Gives the process root's effective ids back, for what runs at its exit. Failure is logged.
void RaiseToRoot() noexcept;

}  // namespace korv
