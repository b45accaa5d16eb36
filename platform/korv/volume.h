#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

// Volumes, quotas and users of this machine. Implemented in korv/system/volume.cpp,
// free_space.cpp and accounts.cpp.

struct KORVVOLUME {
    std::uint64_t totalBytes;
    std::uint64_t freeBytes;  // available to unprivileged users
};

// The size of the volume mounted at `path`. 0 on success, -1 otherwise with `volume` unchanged.
// Bounded: a file system that doesn't answer within the platform's deadline is a failure.
int KORVMountVolInfoGet(const char* path, KORVVOLUME* volume);

struct KORVQUOTA {
    float limitMB;  // 0 = no limit
    std::uint64_t usedBytes;
};

// What `user` may use and uses on the volume at `volume`: the hard limit of the kernel's quota, or the soft
// one where there is no other or its time of grace is over; on XFS a limit that the user hasn't got is the
// default, that of id 0. Nothing limits root. 0 on success, -1 otherwise with `quota` unchanged. Needs root.
int KORVQuotaGet(const char* user, const char* volume, KORVQUOTA* quota);

// The ids of an account; `gid` may be null. 0 on success, -1 when there is no such account.
int KORVUserGetUGID(const char* user, uid_t* uid, gid_t* gid);

class SDKFuncData {
public:
    // True when the file system at `volume` is Btrfs.
    static bool IsBtrfs(const std::string& volume);

    // What the user `uid` can still write into the folder at `path` of a Btrfs volume, in MB: the smaller of
    // the rest of its subvolume's limit and the file system's free space. Of an unlocked encrypted share both
    // are those of its encrypted files. Negative when it cannot be told; 0 when the folder doesn't answer
    // within the platform's deadline.
    static std::int32_t GetBtrfsFreeMB(const std::string& path, uid_t uid);
};
