#include "korv/system/volume.h"

#include <fcntl.h>

#include <cstdint>
#include <optional>

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include "platform/korv/volume.h"

#include "korv/system/bounded_call.h"

namespace korv {

namespace {

constexpr std::uint64_t kBytesPerMb = std::uint64_t{1024} * 1024;
constexpr std::uint32_t kXfsMagic = 0x58465342;
constexpr std::uint32_t kCifsMagic = 0xFF534D42;
constexpr std::uint32_t kSmb2Magic = 0xFE534D42;

FileSystemType TypeOf(std::uint32_t magic) {
    switch (magic) {
        case EXT4_SUPER_MAGIC:
            return FileSystemType::kExt4;
        case BTRFS_SUPER_MAGIC:
            return FileSystemType::kBtrfs;
        case kXfsMagic:
            return FileSystemType::kXfs;
        case NFS_SUPER_MAGIC:
            return FileSystemType::kNfs;
        case kCifsMagic:
        case kSmb2Magic:
            return FileSystemType::kCifs;
        default:
            return FileSystemType::kOther;
    }
}

bool IsMountRoot(const std::string& path) {
    struct statx status {};
    const int flags = AT_SYMLINK_NOFOLLOW | AT_STATX_FORCE_SYNC;
    return statx(AT_FDCWD, path.c_str(), flags, STATX_TYPE, &status) == 0 && S_ISDIR(status.stx_mode) &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

std::optional<struct statfs> ReadFacts(const std::string& path) {
    struct statfs facts {};
    return statfs(path.c_str(), &facts) == 0 ? std::optional(facts) : std::nullopt;
}

}  // namespace

Volume ProbeVolume(const std::string& path) {
    Volume volume;
    volume.path = path;
    const auto isThere = CallBounded(kIsItThere, path, [&path] { return std::optional(IsMountRoot(path)); });
    const auto facts = isThere.value_or(false)
                           ? CallBounded("statfs", path, [&path] { return ReadFacts(path); })
                           : std::nullopt;
    if (!facts) {
        return volume;
    }
    volume.isMounted = true;
    volume.isWritable = (facts->f_flags & ST_RDONLY) == 0;
    volume.type = TypeOf(static_cast<std::uint32_t>(facts->f_type));
    const auto blockSize = static_cast<std::uint64_t>(facts->f_frsize);
    volume.sizeBytes = facts->f_blocks * blockSize;
    volume.freeBytes = facts->f_bavail * blockSize;
    volume.sizeMb = volume.sizeBytes / kBytesPerMb;
    volume.freeMb = volume.freeBytes / kBytesPerMb;
    return volume;
}

}  // namespace korv

int KORVMountVolInfoGet(const char* path, KORVVOLUME* volume) {
    const korv::Volume facts = korv::ProbeVolume(path);
    if (!facts.isMounted) {
        return -1;
    }
    *volume = {facts.sizeBytes, facts.freeBytes};
    return 0;
}

bool SDKFuncData::IsBtrfs(const std::string& volume) {
    return korv::ProbeVolume(volume).type == korv::FileSystemType::kBtrfs;
}
