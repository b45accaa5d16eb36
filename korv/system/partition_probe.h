#pragma once

#include <libudev.h>

#include <optional>
#include <string>

#include "korv/system/file_system_probe.h"

namespace korv {

// What `partition` of `disk`, or the disk itself, holds. Nothing when the disk doesn't answer: it is looked
// at in a child, as korv/system/bounded_call.h says. A disk that sleeps is not woken: it is looked at again
// only after something was written to it or the device manager has noticed a change. What is mounted stays
// what it is.
//   mountId  of what is mounted from it; empty = nothing
// Needs root.
std::optional<FileSystemFacts> ProbePartition(udev_device& disk, udev_device& partition,
                                              const std::string& mountId);

}  // namespace korv
