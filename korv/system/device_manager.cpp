#include "korv/system/device_manager.h"

#include <stdexcept>

namespace korv {

namespace {

std::string Text(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

std::vector<UdevDevice> ListBlockDevices(udev& context, const std::string& type, udev_device* parent) {
    const UdevList list(udev_enumerate_new(&context));
    const bool isReady = list != nullptr && udev_enumerate_add_match_subsystem(list.get(), "block") >= 0 &&
                         udev_enumerate_add_match_property(list.get(), "DEVTYPE", type.c_str()) >= 0 &&
                         (parent == nullptr || udev_enumerate_add_match_parent(list.get(), parent) >= 0);
    if (!isReady || udev_enumerate_scan_devices(list.get()) < 0) {
        throw std::runtime_error("the block devices can't be enumerated");
    }
    std::vector<UdevDevice> devices;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(list.get())) {
        UdevDevice device(udev_device_new_from_syspath(&context, udev_list_entry_get_name(entry)));
        if (device != nullptr) {
            devices.push_back(std::move(device));
        }
    }
    return devices;
}

std::string Property(udev_device& device, const char* name) {
    return Text(udev_device_get_property_value(&device, name));
}

std::string Attribute(udev_device& device, const char* name) {
    return Text(udev_device_get_sysattr_value(&device, name));
}

}  // namespace korv
