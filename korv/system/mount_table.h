#pragma once

#include <string>
#include <vector>

namespace korv {

// One mount as this process sees it.
struct Mount {
    std::string path;
    std::string fsType;  // such as "ext4" or "fuse.gocryptfs"
    std::string source;
};

// All mounts of this process's mount namespace, in the order they were made. Throws std::runtime_error.
std::vector<Mount> ReadMounts();

// The paths of `mounts` that are `path` itself or beneath it.
std::vector<std::string> MountsAtOrBeneath(const std::vector<Mount>& mounts, const std::string& path);

}  // namespace korv
