#pragma once

#include <string>

namespace korv {

// True when some process of this machine has a file below the folder `path` open or mapped; open folders
// don't count, nor files of another folder that a container has at the same path. `path` is absolute without
// symbolic links. Reads /proc as root, which takes some milliseconds with a few hundred processes. What is
// opened while it looks may be missed.
bool IsFileOpenBeneath(const std::string& path);

}  // namespace korv
