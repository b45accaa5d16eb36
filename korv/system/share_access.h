#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace korv {

// The ids that a process of some user would run with.
struct Identity {
    uid_t uid = 0;
    std::vector<gid_t> groups;  // the primary one included
};

// What may be done with the entries of a folder.
struct FolderAccess {
    bool canList = false;    // read the folder and reach what is in it
    bool canChange = false;  // make and remove entries
    int error = 0;  // an errno where neither can be told, ETIMEDOUT for a folder that doesn't answer;
                    // that there is no such folder is none
};

// What the kernel would allow `who` in the folder at `path`: the rights to pass through every folder above
// it, its ACL, and whether anybody at all can write there (not on a read-only mount or Btrfs subvolume, nor
// in an immutable folder). Needs root.
FolderAccess AccessTo(const std::string& path, const Identity& who);

}  // namespace korv
