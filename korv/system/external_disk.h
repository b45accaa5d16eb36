#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

// The external disks that are attached now, from the device manager, the disks themselves and the list of
// mounts.
namespace korv {

enum class ExternalDiskKind : int {
    kUsb = 2,
    kEsata = 16,
};

enum class PartitionState : int {
    kReady = 0,     // mounted
    kUnusable = 1,  // no file system that is known, or not mounted
    // Not meant for files, silent, or mounted at a path that listings don't keep whole.
    kHidden = 2,
};

struct ExternalPartition {
    std::string device;  // "/dev/sdb1"
    int number = 0;      // 0 = the disk itself
    PartitionState state = PartitionState::kUnusable;
    std::string fsType;  // empty = none that is known
    std::string label;
    std::string shareName;   // while mounted; empty too where the name would become too long
    std::string mountPath;   // empty = not mounted
    bool isForFiles = true;  // false: swap, a boot partition, a member of something else
    bool isSilent = false;   // what is mounted there doesn't answer, or the disk itself when nothing is
};

struct ExternalDisk {
    ExternalDiskKind kind = ExternalDiskKind::kUsb;
    std::string name;      // "sdb"
    std::string device;    // "/dev/sdb"
    std::string identity;  // what the kernel counts anew for each disk that comes; empty = it doesn't
    int number = 0;        // from the register (external_disk_register.h)
    bool isSettled = false;
    std::vector<ExternalPartition> partitions;
};

// The attached disks of both kinds by name, without their partitions and numbers; not one that the machine
// runs from, swaps to or has a volume on. `isSettled` is false while
// the device manager still looks at one. Throws std::runtime_error when the device manager's data can't be
// read.
std::vector<ExternalDisk> AttachedDisks();

// The same of one disk; nothing when it is gone or no external disk.
std::optional<ExternalDisk> AttachedDisk(const std::string& name);

// The longest name of an external share: listings keep no more of it.
inline constexpr std::size_t kLongestExternalShareName = 15;

// What the names of the shares on `disk` begin with, or are: "usbshare2".
std::string ShareStem(const ExternalDisk& disk);

// The longest path of one.
inline constexpr std::size_t kLongestExternalSharePath = 127;

// Fills the partitions of `disk` by number, or the disk itself where it holds a file system unpartitioned.
// Needs root. A disk that is gone has none. What doesn't answer costs korv::kAnswerDeadline, once for a while
// (korv/system/bounded_call.h). What is known of a disk that has not changed is not read again.
void ReadPartitions(ExternalDisk& disk);

}  // namespace korv
