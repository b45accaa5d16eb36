#pragma once

#include <cstdint>
#include <string>

#include <json/json.h>

#include "platform/pavane/rec_share.h"

// Remote folders mounted on this NAS. Implemented in korv/services/mount_list.cpp and
// pavane/store/mount_info.cpp.

// The remote folders mounted inside shared folders: an array of objects with "mount_point" (absolute path),
// "type"
// ("cifs", "nfs"), "auto_mount" ("yes", "no") and "source".
//   mounts     out; unchanged after a failure
//   withState  true: also whether each answers (slow)
// 0 on success.
int GetLocalMountedFolderByWebApi(Json::Value& mounts, bool withState);

// The file system mounted at `mountPoint`.
//   fsType, sizeMB  out; unchanged after a failure
// 0 on success. Bounded: a server that doesn't answer within the platform's deadline is a failure.
int GetMntPointFSInfo(const std::string& mountPoint, _tag_FSTYPE& fsType, std::uint64_t& sizeMB);

// The state of the remote mount at `path` as the system sees it now: 0 = mounted and alive.
int GetRemoteMountStatus(const std::string& path);

// Records a changed mount state in the store and in `share`.
//   refreshFacts  true: after a success also read the file system's type and size anew
//   onlyIfChanged true: leave the store alone when the state is what it was
void UpdateShareMountInfo(SHARE_MOUNT_STATUS status, RecShare& share, bool refreshFacts, bool onlyIfChanged);
