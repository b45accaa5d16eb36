#pragma once

#include <string>
#include <vector>

#include "korv/system/external_disk.h"

// What external disks are being made ready for: one line `sdb="done"` per attached disk in a small file that
// other programs read too. A disk that isn't there is not to be used.
namespace korv {

inline constexpr const char* kDiskStateFile = "/tmp/usbdiskapplying";

inline constexpr const char* kDiskReady = "done";
inline constexpr const char* kDiskStarting = "init";         // the device manager still looks at it
inline constexpr const char* kDiskChecked = "fsck";          // a check of a file system runs
inline constexpr const char* kDiskFormatted = "formatting";  // a file system is being made
inline constexpr const char* kDiskFailed = "fail";           // set by others; stays until the disk goes

// Drops what is noted of the disks `names`. False when it is still noted, since the file can't be written.
// Needs root.
[[nodiscard]] bool ForgetDiskStates(const std::vector<std::string>& names);

// Brings the file up to date for the disks of both kinds that are attached now; it is written only when
// something changed. Where it can't be, what it says stays and the log tells why, once for a row of failures.
// Needs root and the register (external_disk_register.h).
void UpdateDiskStates(const std::vector<ExternalDisk>& attached);

// "formatting" or "fsck" when a program of that kind, run by root, works on `device` or on a partition of it,
// else "".
std::string WorkOn(const std::string& device);

}  // namespace korv
