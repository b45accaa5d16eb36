#include "korv/system/external_disk.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <optional>
#include <set>

#include "platform/korv/configuration.h"

#include "korv/system/device_manager.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

// A rule of the device manager can declare a disk external, or internal, where its bus doesn't tell.
constexpr const char* kDeclaration = "KORV_EXTERNAL_DISK";

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
    // A hard disk in a USB enclosure answers for itself, so that its bus is told as "ata".
    const std::string bus = Property(disk, "ID_BUS");
    if (bus == "usb" || IsBehindUsb(disk)) {
        return ExternalDiskKind::kUsb;
    }
    const bool isPulled = bus == "ata" && Attribute(disk, "removable") == "1";
    return isPulled ? std::optional(ExternalDiskKind::kEsata) : std::nullopt;
}

// Where the machine itself runs from and where its shares are.
bool IsOwnPlace(const std::string& path) {
    constexpr std::array<const char*, 4> kPlaces{"/", "/boot", "/usr", "/var"};
    const std::vector<std::string>& volumes = KORV::GetConfiguration().volumes;
    return std::find(kPlaces.begin(), kPlaces.end(), path) != kPlaces.end() ||
           path.compare(0, 6, "/boot/") == 0 ||
           std::find(volumes.begin(), volumes.end(), path) != volumes.end();
}

// The devices of what is mounted at the machine's own places and of its swap space, by name and number.
std::set<std::string> OwnDevices() {
    std::set<std::string> devices;
    for (const Mount& mount : ListMounts()) {
        if (IsOwnPlace(mount.mountPoint) && !IsFromAnybody(mount)) {
            devices.insert({mount.source, mount.device});
        }
    }
    std::ifstream swaps("/proc/swaps");
    for (std::string line; std::getline(swaps, line);) {
        devices.insert(line.substr(0, line.find_first_of(" \t")));
    }
    return devices;
}

// A machine may run from a USB disk, which is not to be filled with recordings then.
bool IsMachinesOwn(udev_device& disk) {
    const std::set<std::string> own = OwnDevices();
    const auto isOwn = [&own](udev_device& device) {
        const char* node = udev_device_get_devnode(&device);
        return own.count(Attribute(device, "dev")) != 0 || (node != nullptr && own.count(node) != 0);
    };
    const std::vector<UdevDevice> partitions = ListPartitions(*udev_device_get_udev(&disk), disk);
    return isOwn(disk) || std::any_of(partitions.begin(), partitions.end(),
                                      [&isOwn](const UdevDevice& partition) { return isOwn(*partition); });
}

std::optional<ExternalDisk> Describe(udev_device& device) {
    const char* node = udev_device_get_devnode(&device);
    const auto kind = KindOf(device);
    if (node == nullptr || !kind || IsMachinesOwn(device)) {
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
    const Udev context = OpenDeviceManager();
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
    const Udev context = OpenDeviceManager();
    const UdevDevice device = FindDisk(*context, name);
    return device != nullptr ? Describe(*device) : std::nullopt;
}

}  // namespace korv
