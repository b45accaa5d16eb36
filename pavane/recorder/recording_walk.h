#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <sys/types.h>

namespace pavane {

// One recording as a walk finds it.
struct Recording {
    std::string path;              // from the share's folder on
    std::int64_t modified_ns = 0;  // since 1970
    std::uint64_t disk_bytes = 0;  // what it occupies; its part of it when it has several names
    ino_t inode = 0;
    bool hasOtherNames = false;
};

// Gives every recording beneath the folder open as `share` to `found`: each regular file, except in entries
// of the share's folder whose names begin with a dot, which are the system's own. Follows no link and enters
// no other mount. Folders that vanish meanwhile are fine. What can't be read is left out and counted, and so
// is what lies deeper than kDeepestRecording folders; false only when the share's folder itself can't be
// read or `found` returned false. Memory for one folder's page of entries a level.
constexpr int kDeepestRecording = 64;
bool WalkRecordings(int share, std::uint64_t& unreadable, const std::function<bool(Recording&&)>& found);

}  // namespace pavane
