#pragma once

#include <cstdint>
#include <string>

#include <json/json.h>

#include "platform/korv/fs_type.h"

// Remote folders mounted on this NAS. Implemented in korv/services/mount_list.cpp. A mount point may be given
// with trailing slashes.

// The remote folders mounted inside shared folders: an array of objects with "mount_point" (absolute path),
// "type" ("cifs", "nfs"), "auto_mount" ("yes", "no") and "source".
//   mounts     out; unchanged after a failure
//   withState  true: also whether each answers, as "alive" (a dead server costs five seconds, several no
//   more)
// 0 on success. Without the state no server is asked.
int GetLocalMountedFolderByWebApi(Json::Value& mounts, bool withState);

// The file system mounted at `mountPoint`.
//   fsType, sizeMB  out; unchanged after a failure
// 0 on success. Bounded: a server that doesn't answer within the platform's deadline is a failure, and so is
// a folder on which nothing is mounted.
int GetMntPointFSInfo(const std::string& mountPoint, _tag_FSTYPE& fsType, std::uint64_t& sizeMB);

// True when something is mounted at exactly `path`, by the kernel's list: no file system is asked. True also
// when that can't be read, since nothing says then that a mount has gone.
bool IsMountPoint(const std::string& path);

// The state of the remote mount at `path` as the system sees it now: 0 = mounted and alive, which means
// another device than the folder above, an answer about its size and its entries in time. Blocks for five
// seconds at most.
int GetRemoteMountStatus(const std::string& path);
