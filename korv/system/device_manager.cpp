#include "korv/system/device_manager.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace korv {

namespace {

const std::string kBlockDevices = "/sys/class/block";

bool IsDiskWithMedium(const std::string& name) {
    const std::string folder = kBlockDevices + "/" + name;
    std::string size;
    std::ifstream(folder + "/size") >> size;
    return !size.empty() && size != "0" && access((folder + "/partition").c_str(), F_OK) != 0;
}

std::string Text(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

Udev OpenDeviceManager() {
    Udev context(udev_new());
    if (context == nullptr) {
        throw std::runtime_error("the device manager can't be asked");
    }
    return context;
}

std::vector<UdevDevice> ListDisks(udev& context) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(kBlockDevices.c_str()), closedir);
    std::vector<UdevDevice> disks;
    if (entries == nullptr && errno == ENOENT) {
        return disks;  // a kernel that has none
    }
    if (entries == nullptr) {
        throw std::runtime_error("the block devices can't be enumerated");
    }
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name.front() == '.' || !IsDiskWithMedium(name)) {
            continue;
        }
        if (UdevDevice disk = FindDisk(context, name)) {
            disks.push_back(std::move(disk));
        }
    }
    return disks;
}

UdevDevice FindDisk(udev& context, const std::string& name) {
    return UdevDevice(udev_device_new_from_subsystem_sysname(&context, "block", name.c_str()));
}

std::vector<UdevDevice> ListPartitions(udev& context, udev_device& disk) {
    const UdevList list(udev_enumerate_new(&context));
    const bool isReady = list != nullptr && udev_enumerate_add_match_subsystem(list.get(), "block") >= 0 &&
                         udev_enumerate_add_match_property(list.get(), "DEVTYPE", "partition") >= 0 &&
                         udev_enumerate_add_match_parent(list.get(), &disk) >= 0;
    if (!isReady || udev_enumerate_scan_devices(list.get()) < 0) {
        throw std::runtime_error("the partitions of a disk can't be enumerated");
    }
    std::vector<UdevDevice> partitions;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(list.get())) {
        UdevDevice partition(udev_device_new_from_syspath(&context, udev_list_entry_get_name(entry)));
        if (partition != nullptr) {
            partitions.push_back(std::move(partition));
        }
    }
    return partitions;
}

std::string Property(udev_device& device, const char* name) {
    return Text(udev_device_get_property_value(&device, name));
}

std::string Attribute(udev_device& device, const char* name) {
    return Text(udev_device_get_sysattr_value(&device, name));
}

}  // namespace korv
