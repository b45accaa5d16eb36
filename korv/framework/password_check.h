#pragma once

#include <optional>
#include <string>

namespace korv {

// Checks `password` of `account` with PAM, as root, and gives the account's name as PAM has it. Nothing when
// the account is unknown, the password wrong, or the account not allowed to log in; the three look alike, in
// their duration too. Throws std::runtime_error when PAM itself can't work. Blocks for a quarter of a second
// on refusal.
std::optional<std::string> CheckPassword(const std::string& account, const std::string& password,
                                         const std::string& remoteIp);

}  // namespace korv
