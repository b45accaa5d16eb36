#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// What is mounted where in this process's mount namespace, from the kernel's own list; no file system is
// asked.
namespace korv {

struct Mount {
    std::string id;  // no other's while it is mounted
    std::string mountPoint;
    std::string fsType;  // "ext4", "btrfs", "nfs4", "fuse.gocryptfs", ...
    std::string source;  // "/dev/sdb1", "server:/export", ...
    std::string device;  // "8:1", the same for all mounts of a file system
    std::string root;    // what of the file system is mounted, as a path in it: "/", "/rec" of a bind mount
    std::string subvolume;  // of Btrfs: the subvolume where that is; empty otherwise
};

// All mounts in the order they were made: of two at one place the later one is in sight. Read anew only after
// a mount or unmount. Empty when the kernel's list can't be read. The reference is valid until the next call.
const std::vector<Mount>& ListMounts();

// The mounts that a walk along `path`, an absolute path, passes through, the outermost first. Pure text:
// links are not followed.
std::vector<const Mount*> MountsAlong(const std::string& path);

// The same as a list of the caller's own. Throws std::runtime_error when the kernel's list can't be read.
std::vector<Mount> ReadMounts();

// What process `pid` sees. Empty when it is gone.
std::vector<Mount> ReadMountsOf(pid_t pid);

// Anybody can mount a FUSE file system and call its source what they like; "fuseblk" is root's alone.
bool IsFromAnybody(const Mount& mount);

// Pure text: both are absolute paths without trailing slashes.
bool IsAtOrBeneath(const std::string& path, const std::string& folder);

// The mount points of `mounts` that are `path` itself or beneath it.
std::vector<std::string> MountsAtOrBeneath(const std::vector<Mount>& mounts, const std::string& path);

}  // namespace korv
