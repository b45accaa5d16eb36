#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace pavane {

enum class RotationEnd {
    kWithinLimit,  // the recordings occupy at most the limit now
    kNothingLeft,  // they occupy more, but no more of them may or could be removed
    kStopped,      // `shouldStop` said so
    kNoFolder,     // the share's folder is not there, or can't be read
};

// What a rotation has done.
struct RotationResult {
    RotationEnd end = RotationEnd::kNoFolder;
    std::uint64_t usage_bytes = 0;  // of all recordings of the share, afterwards
    std::uint64_t removedFiles = 0;
    std::uint64_t removed_bytes = 0;
    std::uint64_t removedFolders = 0;  // that had become empty
    std::int64_t oldest_s = 0;         // modification times of the first and the last recording removed;
    std::int64_t newest_s = 0;         //   0 when none was
    std::uint64_t inUse = 0;           // passed over since someone had them open for writing
    std::uint64_t failed = 0;          // that could not be removed or looked at
};

struct RotationOptions {
    // How many of the oldest recordings one walk remembers, some 150 bytes each.
    std::size_t mostCandidates = 100'000;
    std::function<bool()> shouldStop;  // asked before each removal; may be empty
};

// Deletes the oldest recordings of the share at `sharePath`, by time of modification, until all of them
// together occupy at most `limit_bytes` on the disk. See WalkRecordings for what a recording is.
// Never follows a link, never leaves the share or its mount. A recording that changed after the walk saw it
// or is open for writing stays; where the file system can't say who writes, the last minute's stay. Folders
// that it empties go too, except cameras' own, the first level. Files that others delete meanwhile are fine,
// but a second rotation of the same share at the same time would remove too much: callers take turns. Blocks
// as long as it takes; becomes root for its own length.
RotationResult RotateShare(const std::string& sharePath, std::uint64_t limit_bytes,
                           const RotationOptions& options = {});

}  // namespace pavane
