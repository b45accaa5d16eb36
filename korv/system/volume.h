#pragma once

#include <cstdint>
#include <string>

namespace korv {

// File systems of volumes as clients see them ("fs_type").
enum class FileSystemType : int {
    kUnknown = -1,
    kExt4 = 1,
    kBtrfs = 2,
    kXfs = 3,
    kNfs = 10,
    kCifs = 11,
    kOther = 99,
};

// A place that may hold shares. What is not a mount has no type and no size: a share made there would fill
// the system's own disk.
struct Volume {
    std::string path;
    bool isMounted = false;
    bool isWritable = false;
    FileSystemType type = FileSystemType::kUnknown;
    std::uint64_t sizeMb = 0;
    std::uint64_t freeMb = 0;  // for ordinary users
    std::uint64_t sizeBytes = 0;
    std::uint64_t freeBytes = 0;
};

// Looks at what is mounted at `path`, an absolute path without a trailing slash. Never fails: what cannot be
// read, or doesn't answer in time (bounded_call.h), is not mounted.
Volume ProbeVolume(const std::string& path);

}  // namespace korv
