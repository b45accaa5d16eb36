#pragma once

#include <chrono>
#include <string>

#include "korv/system/file_descriptor.h"

namespace korv {

// Holds the lock `name` of the kind `folder` for this process until the descriptor goes; none when another
// process has it for longer than `patience`. Locks are files in <runDir>/<folder>, made at need, which only
// root opens. Needs saved uid 0; throws std::system_error when there can be no lock.
FileDescriptor TakeLock(const std::string& folder, const std::string& name,
                        std::chrono::milliseconds patience);

}  // namespace korv
