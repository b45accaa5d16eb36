#pragma once

#include <string>

namespace korv {

// What a partition holds, by what stands on it.
struct FileSystemFacts {
    bool isKnown = false;       // the rest is empty otherwise
    std::string type;           // "ext4", "ntfs", "swap", "crypto_LUKS", ...
    std::string label;          // may hold any bytes
    std::string usage;          // "filesystem", "raid", "crypto" or "other"
    std::string partitionType;  // its entry in the partition table: a GUID or "0x.."
};

// Looks at the block device or image at `device`. Nothing known also when it can't be read. Needs root.
FileSystemFacts ProbeFileSystem(const std::string& device);

}  // namespace korv
