#pragma once

#include <optional>
#include <string>

// External shares: what is mounted from an external disk is a shared folder without a row in korv.db. It is
// named after its disk and comes and goes with it.
namespace korv {

// True when `name` is of the kind that external shares have ("usbshare2", "satashare3-1"), in any case. No
// other share has such a name.
bool IsExternalShareName(const std::string& name);

// Where the external share `name` is mounted now. Needs saved uid 0 and becomes root for its own length.
// Throws std::runtime_error and std::system_error when the disks can't be looked at.
std::optional<std::string> ExternalSharePath(const std::string& name);

}  // namespace korv
