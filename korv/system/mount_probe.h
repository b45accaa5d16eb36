#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "korv/system/volume.h"

// Looking at mounts of servers that may be gone: each look is a child with a deadline, and a mount at which
// one still hangs isn't looked at again, by whichever process.
namespace korv {

enum class MountSight {
    kAlive,       // another device than the folder above, answers
    kNotMounted,  // nothing is mounted there
    kStale,       // the server no longer knows what was mounted
    kSilent,      // no answer in time
    kFailing,     // an answer, but an error
};

struct MountFacts {
    MountSight sight = MountSight::kSilent;
    FileSystemType type = FileSystemType::kUnknown;  // set when alive, like the size
    std::uint64_t sizeMb = 0;
};

// Trailing slashes of a path don't count here.

// True when something is mounted at exactly `path`; asks only the kernel's list, and throws
// std::runtime_error when that can't be read.
bool IsMounted(const std::string& path);

// What is mounted at `path` now. Blocks for five seconds at most. Throws when this machine, not the server,
// keeps it from being looked at.
MountFacts LookAtMount(const std::string& path);

// The same for many at once, in no more time than for one; in the order of `paths`.
std::vector<MountFacts> LookAtMounts(const std::vector<std::string>& paths);

}  // namespace korv
