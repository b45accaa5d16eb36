#pragma once

#include <string>

namespace korv {

// True when some process of this machine has a file below the folder `path` open or mapped; open folders
// don't count, nor files of another folder that a container has at the same path. `path` is absolute without
// symbolic links. Reads /proc as root, which takes some milliseconds with a few hundred processes. What is
// opened while it looks may be missed.
bool IsFileOpenBeneath(const std::string& path);

// True when a process of another program than `program` (a file's bare name) works in the folder `path` or
// below, or has something there open or mapped: what keeps a mount from being taken away. `path` as above;
// this process doesn't count.
bool IsUsedByOthersThan(const std::string& program, const std::string& path);

// True when somebody can make files in a folder without going there by its name: a process works in it or
// below, has a folder of it open or as its root, or part of it is mounted elsewhere, in whichever mount
// namespace.
//   volume  path of a mounted file system
//   folder  from there on; one that few other file systems have, such as one named by a token
// This process's own descriptors don't count. Reads /proc as root; of file systems only those
// with such a folder are asked.
bool IsFolderHeld(const std::string& volume, const std::string& folder);

}  // namespace korv
