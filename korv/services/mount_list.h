#pragma once

#include <map>
#include <string>

#include <json/json.h>

#include "korv/system/remote_mounts.h"

namespace korv {

// {"total", "mounts": [{"mount_point", "share", "type", "source", "auto_mount" ("yes", "no"), "managed"
// (false: mounted by somebody else than this service), "mounted", "status" (0 = normal when last looked at),
// "last_error" (code), and with the state "alive"}]} of all mounts for administrators, of their own ones for
// others.
//   withState  true: looks at each now
Json::Value MountList(const MountCaller& caller, bool withState);

// Whether what others than this service have mounted inside shares, of whatever type, is alive; by mount
// point. Blocks for five seconds at most.
std::map<std::string, bool> LookAtForeignMounts();

}  // namespace korv
