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

// The block devices of one type ("disk", "partition") by system path; below `parent` only, unless that is
// null. What vanishes meanwhile is left out. Throws std::runtime_error.
std::vector<UdevDevice> ListBlockDevices(udev& context, const std::string& type, udev_device* parent);

// A property or attribute of the device; empty when it has none.
std::string Property(udev_device& device, const char* name);
std::string Attribute(udev_device& device, const char* name);

}  // namespace korv
