#pragma once

#include <optional>
#include <string>
#include <vector>

#include "korv/system/external_disk.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/key_value_file.h"

// What is remembered of the attached external disks from one look to the next, in <runDir>/external-disks:
// the number of each, so that none changes when another disk comes or goes, and which disk it was, so that
// nothing of it is taken for another's under the same name.
namespace korv {

// Holds the register: one process at a time looks at the disks. Needs root while it lives.
class ExternalDiskRegister {
public:
    // Waits for whoever has it. Throws std::system_error.
    ExternalDiskRegister();

    // The attached disks of both kinds by name, without their partitions. A disk's number is no other's and
    // stays while a disk of that name is attached; where it is free, it is that of the name ("sdb" is 2).
    // What was noted of the state of a disk that is no longer there, or has made way for another, is
    // dropped. Throws std::runtime_error when the device manager's data can't be read, std::system_error
    // when the register can't be.
    std::vector<ExternalDisk> List();

    // The same of one disk; nothing when it is gone or no external disk.
    std::optional<ExternalDisk> Find(const std::string& name);

private:
    FileDescriptor m_lock;
    KeyValues m_known;  // "NUMBER IDENTITY" by name
};

// The same for a single look.
std::vector<ExternalDisk> ListExternalDisks();
std::optional<ExternalDisk> FindExternalDisk(const std::string& name);

}  // namespace korv
