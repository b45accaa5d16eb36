#pragma once

#include <string>

#include "korv/framework/service_user.h"
#include "korv/system/file_descriptor.h"

// Listens on the unix socket `path`, which only `owner` (and root) can connect to; a stale one is replaced.
// Non-blocking, closed on exec, with room for thousands of waiting requests. Throws std::system_error.
korv::FileDescriptor ListenOn(const std::string& path, const korv::UserIds& owner);
