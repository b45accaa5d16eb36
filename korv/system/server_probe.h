#pragma once

#include <string>

#include "korv/system/mount_failure.h"

namespace korv {

// Whether a connection to a server can be made: kNone, or kUnknownHost, kNoAnswer, kRefused. Says so much
// sooner and plainer than a mount would. Blocks up to ten seconds, and as long as the name service does.
MountFailure ProbeServer(const std::string& host, int port);

}  // namespace korv
