#pragma once

#include <libudev.h>

#include <memory>
#include <string>
#include <vector>

// libudev's objects with owners.
namespace korv {

struct UdevUnref {
    void operator()(udev* context) const { udev_unref(context); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
    void operator()(udev_enumerate* list) const { udev_enumerate_unref(list); }
};
using Udev = std::unique_ptr<udev, UdevUnref>;
using UdevDevice = std::unique_ptr<udev_device, UdevUnref>;
using UdevList = std::unique_ptr<udev_enumerate, UdevUnref>;

// Throws std::runtime_error.
Udev OpenDeviceManager();

// The disks that have a medium, in no order. Of those that have none (a card reader's slot, a loop device
// that is not in use) the kernel has many, and the device manager is not asked about them. What vanishes
// meanwhile is left out. Throws std::runtime_error.
std::vector<UdevDevice> ListDisks(udev& context);

// The disk of that name ("sdb"); null when there is none.
UdevDevice FindDisk(udev& context, const std::string& name);

// The partitions of `disk` by system path. Throws std::runtime_error.
std::vector<UdevDevice> ListPartitions(udev& context, udev_device& disk);

// A property or attribute of the device; empty when it has none.
std::string Property(udev_device& device, const char* name);
std::string Attribute(udev_device& device, const char* name);

}  // namespace korv
