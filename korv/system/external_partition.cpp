#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <vector>

#include <sys/vfs.h>
#include <sys/xattr.h>

#include "korv/system/bounded_call.h"
#include "korv/system/device_manager.h"
#include "korv/system/external_disk.h"
#include "korv/system/mount_table.h"
#include "korv/system/partition_probe.h"

namespace korv {

namespace {

// Partitions that hold no files of users.
constexpr std::array<const char*, 7> kHiddenPartitionTypes{
    "c12a7328-f81f-11d2-ba4b-00a0c93ec93b",  // EFI system
    "e3c9e316-0b5c-4db8-817d-f92df00215ae",  // Microsoft reserved
    "de94bba4-06d1-4d40-a16a-bfd50179d6ac",  // Windows recovery
    "21686148-6449-6e6f-744e-656564454649",  // BIOS boot
    "0x5",                                   // extended
    "0xf",                                   // extended
    "0xef",                                  // EFI system
};

// Not just a folder of it that somebody has bound to another place.
bool IsWhole(const Mount& mount) {
    return mount.root == "/" || (!mount.subvolume.empty() && mount.root == mount.subvolume);
}

// What is mounted over it, at its place or above, is another's.
bool IsInSight(const Mount& mount) {
    const auto along = MountsAlong(mount.mountPoint);
    return !along.empty() && along.back()->id == mount.id;
}

// Where the file system on the device can be used.
std::optional<Mount> MountOf(const std::string& device) {
    const std::vector<Mount> mounts = ReadMounts();  // IsInSight reads them, too
    const auto isUsable = [&device](const Mount& mount) {
        return mount.source == device && !IsFromAnybody(mount) && IsWhole(mount) && IsInSight(mount);
    };
    const auto isShort = [](const Mount& mount) {
        return mount.mountPoint.size() <= kLongestExternalSharePath;
    };
    auto found = std::find_if(mounts.begin(), mounts.end(),
                              [&](const Mount& mount) { return isShort(mount) && isUsable(mount); });
    if (found == mounts.end()) {
        found = std::find_if(mounts.begin(), mounts.end(), isUsable);
    }
    return found != mounts.end() ? std::optional(*found) : std::nullopt;
}

// What the file system is called on the disk itself; empty where a program serves its files and only the disk
// can tell.
std::string TypeOf(const Mount& mount) {
    if (mount.fsType.compare(0, 7, "fuseblk") == 0) {
        return "";
    }
    return mount.fsType == "ntfs3" ? "ntfs" : mount.fsType;
}

// Whoever lists disks asks what is mounted for its size and for the rights on it, without a deadline of their
// own. The disk of any file system may hang; what the kernel once read, it has at hand. The number of a mount
// that is gone may be that of another disk's.
bool IsAnswering(const Mount& mount, udev_device& disk) {
    const auto ask = [&path = mount.mountPoint] {
        struct statfs64 size {};
        const bool hasSize = statfs64(path.c_str(), &size) == 0;
        getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0);
        return std::optional(hasSize);
    };
    const std::string attachment = Attribute(disk, "diskseq");
    return CallApart("external " + attachment + " " + mount.id + " " + mount.source, ask).has_value();
}

bool IsForFiles(const FileSystemFacts& facts) {
    const bool isHiddenType = std::any_of(
        kHiddenPartitionTypes.begin(), kHiddenPartitionTypes.end(),
        [&facts](const char* type) { return strcasecmp(type, facts.partitionType.c_str()) == 0; });
    return !isHiddenType && facts.type != "swap" && facts.usage != "raid" && facts.usage != "crypto";
}

// What the device manager saw when the device came.
FileSystemFacts NotedFacts(udev_device& device) {
    FileSystemFacts facts;
    facts.type = Property(device, "ID_FS_TYPE");
    facts.label = Property(device, "ID_FS_LABEL");
    facts.usage = Property(device, "ID_FS_USAGE");
    facts.partitionType = Property(device, "ID_PART_ENTRY_TYPE");
    return facts;
}

PartitionState StateOf(const ExternalPartition& partition) {
    if (partition.isSilent || partition.mountPath.size() > kLongestExternalSharePath ||
        (partition.mountPath.empty() && !partition.isForFiles)) {
        return PartitionState::kHidden;
    }
    return partition.mountPath.empty() ? PartitionState::kUnusable : PartitionState::kReady;
}

ExternalPartition ReadPartition(udev_device& disk, udev_device& device, int number) {
    ExternalPartition partition;
    const char* node = udev_device_get_devnode(&device);
    if (node == nullptr) {
        return partition;
    }
    partition.device = node;
    partition.number = number;
    const std::optional<Mount> mount = MountOf(partition.device);
    FileSystemFacts facts = NotedFacts(device);
    const std::string mountedType = mount ? TypeOf(*mount) : "";
    if (!mountedType.empty()) {
        facts.type = mountedType;
    } else if (const auto found = ProbePartition(disk, device, mount ? mount->id : "")) {
        facts = found->isKnown ? *found : facts;
    } else {
        partition.isSilent = true;
    }
    partition.fsType = facts.type;
    partition.label = facts.label;
    partition.mountPath = mount ? mount->mountPoint : "";
    partition.isForFiles = mount || IsForFiles(facts);
    partition.isSilent = partition.isSilent || (mount && !IsAnswering(*mount, disk));
    partition.state = StateOf(partition);
    return partition;
}

int PartitionNumber(udev_device& device) {
    constexpr int kDecimal = 10;
    return static_cast<int>(strtol(Attribute(device, "partition").c_str(), nullptr, kDecimal));
}

// One partition that holds files is known by the disk's own name; several add their numbers. A name that was
// cut could be another partition's.
void NameShares(ExternalDisk& disk) {
    const auto isForFiles = [](const ExternalPartition& each) { return each.isForFiles; };
    const bool isOne = std::count_if(disk.partitions.begin(), disk.partitions.end(), isForFiles) <= 1;
    const std::string stem = ShareStem(disk);
    for (ExternalPartition& partition : disk.partitions) {
        const std::string name = isOne ? stem : stem + "-" + std::to_string(partition.number);
        const bool isNamed =
            partition.state == PartitionState::kReady && name.size() <= kLongestExternalShareName;
        partition.shareName = isNamed ? name : "";
    }
}

}  // namespace

std::string ShareStem(const ExternalDisk& disk) {
    return (disk.kind == ExternalDiskKind::kUsb ? "usbshare" : "satashare") + std::to_string(disk.number);
}

void ReadPartitions(ExternalDisk& disk) {
    disk.partitions.clear();
    const Udev context = OpenDeviceManager();
    const UdevDevice device = FindDisk(*context, disk.name);
    if (device == nullptr) {
        return;
    }
    for (const UdevDevice& partition : ListPartitions(*context, *device)) {
        disk.partitions.push_back(ReadPartition(*device, *partition, PartitionNumber(*partition)));
    }
    std::sort(disk.partitions.begin(), disk.partitions.end(),
              [](const ExternalPartition& left, const ExternalPartition& right) {
                  return left.number < right.number;
              });
    if (disk.partitions.empty()) {
        disk.partitions.push_back(ReadPartition(*device, *device, 0));
    }
    NameShares(disk);
}

}  // namespace korv
