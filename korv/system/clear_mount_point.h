#pragma once

#include <string>

namespace korv {

// Takes away all that is mounted at `folder`, which lies where only root gets, and the folder itself; what is
// not there is a success. Who uses a mount keeps it, out of sight, and no file system is waited for; at most
// ten seconds. False when something of it stays. Needs saved uid 0.
bool ClearMountPoint(const std::string& folder);

}  // namespace korv
