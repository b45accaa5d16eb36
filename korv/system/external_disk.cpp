#include "korv/system/external_disk.h"

#include <algorithm>
#include <optional>

#include "korv/system/device_manager.h"

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
    // A hard disk in an USB enclosure answers for itself, so that its bus is told as "ata".
    const std::string bus = Property(disk, "ID_BUS");
    if (bus == "usb" || IsBehindUsb(disk)) {
        return ExternalDiskKind::kUsb;
    }
    const bool isPulled = bus == "ata" && Attribute(disk, "removable") == "1";
    return isPulled ? std::optional(ExternalDiskKind::kEsata) : std::nullopt;
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
