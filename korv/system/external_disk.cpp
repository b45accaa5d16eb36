#include "korv/system/external_disk.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include <sys/vfs.h>

#include "korv/system/bounded_call.h"
#include "korv/system/device_manager.h"
#include "korv/system/file_system_probe.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

// A rule of the device manager can declare a disk external, or internal, where its bus doesn't tell.
constexpr const char* kDeclaration = "KORV_EXTERNAL_DISK";

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

Udev OpenUdev() {
    Udev context(udev_new());
    if (context == nullptr) {
        throw std::runtime_error("the device manager can't be asked");
    }
    return context;
}

bool IsBehindUsb(udev_device& disk) {
    const bool isVirtual =
        std::string(udev_device_get_syspath(&disk)).find("/devices/virtual/") != std::string::npos;
    return !isVirtual && udev_device_get_parent_with_subsystem_devtype(&disk, "usb", "usb_device") != nullptr;
}

// Nothing for the machine's own disks. A port that disks are pulled from marks them as removable.
std::optional<ExternalDiskKind> KindOf(udev_device& disk) {
    const std::string declared = Property(disk, kDeclaration);
    if (declared == "usb") {
        return ExternalDiskKind::kUsb;
    }
    if (declared == "esata") {
        return ExternalDiskKind::kEsata;
    }
    if (!declared.empty() || Property(disk, "ID_TYPE") == "cd") {
        return std::nullopt;
    }
    // A hard disk in an USB enclosure answers for itself, so that its bus is told as "ata".
    const std::string bus = Property(disk, "ID_BUS");
    if (bus == "usb" || IsBehindUsb(disk)) {
        return ExternalDiskKind::kUsb;
    }
    const bool isPulled = bus == "ata" && Attribute(disk, "removable") == "1";
    return isPulled ? std::optional(ExternalDiskKind::kEsata) : std::nullopt;
}

std::string MountPathOf(const std::string& device) {
    for (const Mount& mount : ListMounts()) {
        if (mount.source == device && !IsFromAnybody(mount)) {
            return mount.mountPoint;
        }
    }
    return "";
}

// Whoever lists disks asks what is mounted for its size without a deadline of their own.
bool IsAnswering(const std::string& path) {
    if (IsPathPrompt(path)) {
        return true;
    }
    const auto ask = [&path] {
        struct statfs64 size {};
        return std::optional(statfs64(path.c_str(), &size) == 0);
    };
    return CallBounded("statfs", path, ask).has_value();
}

bool IsHidden(const FileSystemFacts& facts) {
    const bool isHiddenType = std::any_of(
        kHiddenPartitionTypes.begin(), kHiddenPartitionTypes.end(),
        [&facts](const char* type) { return strcasecmp(type, facts.partitionType.c_str()) == 0; });
    return isHiddenType || facts.type == "swap" || facts.usage == "raid" || facts.usage == "crypto";
}

// What is on the device now; what the device manager saw when it came where that can't be read.
FileSystemFacts FactsOf(udev_device& device, const std::string& node) {
    FileSystemFacts facts = ProbeFileSystem(node);
    if (!facts.isKnown) {
        facts.type = Property(device, "ID_FS_TYPE");
        facts.label = Property(device, "ID_FS_LABEL");
        facts.usage = Property(device, "ID_FS_USAGE");
        facts.partitionType = Property(device, "ID_PART_ENTRY_TYPE");
        facts.isKnown = !facts.type.empty();
    }
    return facts;
}

ExternalPartition ReadPartition(udev_device& device, int number) {
    ExternalPartition partition;
    const char* node = udev_device_get_devnode(&device);
    if (node == nullptr) {
        return partition;
    }
    partition.device = node;
    partition.number = number;
    const FileSystemFacts facts = FactsOf(device, partition.device);
    partition.fsType = facts.type;
    partition.label = facts.label;
    partition.mountPath = MountPathOf(partition.device);
    partition.isSilent = !partition.mountPath.empty() && !IsAnswering(partition.mountPath);
    if (partition.isSilent || (partition.mountPath.empty() && IsHidden(facts))) {
        partition.state = PartitionState::kHidden;
    } else if (!partition.mountPath.empty()) {
        partition.state = PartitionState::kReady;
    }
    return partition;
}

int PartitionNumber(udev_device& device) {
    constexpr int kDecimal = 10;
    return static_cast<int>(strtol(Attribute(device, "partition").c_str(), nullptr, kDecimal));
}

// One partition that holds files is known by the disk's own name; several add their numbers. A name that was
// cut could be another partition's.
void NameShares(ExternalDisk& disk) {
    const auto isForFiles = [](const ExternalPartition& each) {
        return each.state != PartitionState::kHidden;
    };
    const bool isOne = std::count_if(disk.partitions.begin(), disk.partitions.end(), isForFiles) <= 1;
    const std::string stem =
        (disk.kind == ExternalDiskKind::kUsb ? "usbshare" : "satashare") + std::to_string(disk.number);
    for (ExternalPartition& partition : disk.partitions) {
        const std::string name = isOne ? stem : stem + "-" + std::to_string(partition.number);
        const bool isNamed =
            partition.state == PartitionState::kReady && name.size() <= kLongestExternalShareName;
        partition.shareName = isNamed ? name : "";
    }
}

std::optional<ExternalDisk> Describe(udev_device& device) {
    const char* node = udev_device_get_devnode(&device);
    const auto kind = KindOf(device);
    if (node == nullptr || !kind) {
        return std::nullopt;
    }
    ExternalDisk disk;
    disk.kind = *kind;
    disk.name = udev_device_get_sysname(&device);
    disk.device = node;
    disk.identity = Attribute(device, "diskseq");
    disk.isSettled = udev_device_get_is_initialized(&device) > 0;
    return disk;
}

}  // namespace

std::vector<ExternalDisk> AttachedDisks() {
    const Udev context = OpenUdev();
    std::vector<ExternalDisk> disks;
    for (const UdevDevice& device : ListDisks(*context)) {
        if (auto disk = Describe(*device)) {
            disks.push_back(std::move(*disk));
        }
    }
    std::sort(disks.begin(), disks.end(),
              [](const ExternalDisk& left, const ExternalDisk& right) { return left.name < right.name; });
    return disks;
}

std::optional<ExternalDisk> AttachedDisk(const std::string& name) {
    const Udev context = OpenUdev();
    const UdevDevice device = FindDisk(*context, name);
    return device != nullptr ? Describe(*device) : std::nullopt;
}

void ReadPartitions(ExternalDisk& disk) {
    disk.partitions.clear();
    const Udev context = OpenUdev();
    const UdevDevice device = FindDisk(*context, disk.name);
    if (device == nullptr) {
        return;
    }
    for (const UdevDevice& partition : ListPartitions(*context, *device)) {
        disk.partitions.push_back(ReadPartition(*partition, PartitionNumber(*partition)));
    }
    std::sort(disk.partitions.begin(), disk.partitions.end(),
              [](const ExternalPartition& left, const ExternalPartition& right) {
                  return left.number < right.number;
              });
    if (disk.partitions.empty()) {
        disk.partitions.push_back(ReadPartition(*device, 0));
    }
    NameShares(disk);
}

}  // namespace korv
