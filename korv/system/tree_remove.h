#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace korv {

// Why something could not be removed.
enum class RemoveObstacle {
    kMount,         // something is mounted there
    kImmutable,     // marked as not to be changed
    kBusy,          // in use in a way that forbids removal, as a swap file
    kReadOnly,      // the file system can't be written
    kNotPermitted,  // another reason of rights
    kChanging,      // someone keeps adding to a folder, or has moved it away meanwhile
    kFailed,        // errno tells
};

struct RemoveProblem {
    RemoveObstacle obstacle = RemoveObstacle::kFailed;
    int error = 0;
    std::string path;  // from the removed folder's name on
};

// What a removal did. Problems are counted all and listed up to kListedProblems.
struct TreeRemoval {
    static constexpr std::size_t kListedProblems = 16;

    bool isGone = false;  // nothing is there any more, or there was nothing
    bool isStopped = false;
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
    std::uint64_t subvolumes = 0;  // of Btrfs, each with all that was in it
    std::uint64_t problemCount = 0;
    std::vector<RemoveProblem> problems;
};

// Removes what `path` names beneath the folder open as `base`, and all that is in it.
//   path        relative, without ".." and without a slash at the end; symbolic links in it are not followed,
//               one at its end is removed itself
//   shouldStop  asked now and then; true ends the removal early
// When anything is mounted at or in it, nothing is removed and each mount is a problem. What can't be removed
// is left, everything else goes. A removal that was interrupted is simply run again. Bounded memory, also for
// a million files in a folder and 20,000 folders in each other; blocks for as long as that takes. On Btrfs a
// subvolume goes as a whole; its space comes back a little later. The result is on the disk when this
// returns. Becomes root for its own length; never throws for what it finds in the tree.
TreeRemoval RemoveTree(int base, const std::string& path, const std::function<bool()>& shouldStop = {});

}  // namespace korv
