#pragma once

// File systems of volumes and mounts, as reported to clients.
enum _tag_FSTYPE : int {  // NOLINT(bugprone-reserved-identifier): the name is the contract's
    FSTYPE_UNKNOWN = -1,
    FSTYPE_EXT4 = 1,
    FSTYPE_BTRFS = 2,
    FSTYPE_XFS = 3,
    FSTYPE_NFS = 10,
    FSTYPE_CIFS = 11,
    FSTYPE_OTHER = 99,
};
