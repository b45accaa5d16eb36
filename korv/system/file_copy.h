#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <sys/stat.h>

namespace korv {

// Copying and comparing single files between two folders, which may be on file systems of different kinds.
// All of it works on open folders, follows no link, needs root, and throws CopyError.

// What went wrong with which file system. `error` is errno.
struct CopyError {
    enum class Where { kSource, kTarget };
    Where where = Where::kSource;
    int error = 0;
    const char* action = "";
};

// Thrown by observers to end a copy early.
struct CopyStopped {};

// One entry of a folder.
struct EntryRef {
    int folder = -1;
    const char* name = "";
};

// Called with the number of bytes that were read since the last call; may throw.
using CopyObserver = std::function<void(std::uint64_t)>;

// Copies the content of the regular file `source` into `target`, open for writing and empty; holes stay
// holes. Shares blocks where both are on one file system that can.
void CopyContent(int source, int target, const CopyObserver& observer);

// True when both regular files hold the same bytes.
bool HasSameContent(int source, int target, const CopyObserver& observer);

// Gives `target` owner, mode, ACLs, extended attributes and times of `source`, whose facts are `status`;
// times come last, and mark a copy as complete. Both are of one kind and open for reading.
void CopyAttributes(int source, const struct stat& status, int target);
// The same in two parts, between which a file gets its content.
//   isNew  `target` was just made (AttributeFile::CopyTo)
void CopyRights(const struct stat& status, int target);
void CopyAttributesAndTimes(int source, const struct stat& status, int target, bool isNew);

// The same for entries that can't be opened without side effects: links, pipes, sockets, devices.
void CopyAttributes(const EntryRef& source, const struct stat& status, const EntryRef& target);

// True when owner, mode, times, ACLs and extended attributes are the same; of a link owner and time.
bool HasSameAttributes(int source, const struct stat& sourceStatus, int target,
                       const struct stat& targetStatus);

}  // namespace korv
