#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include <sys/types.h>

#include "korv/system/file_copy.h"

namespace korv {

// How a pass decides that a copy is as it must be.
enum class SyncMode {
    // The same kind, size and time of modification. Goes on where an earlier pass was interrupted, since a
    // copy gets its time last.
    kCopy,
    // The same content, byte for byte, and the same attributes.
    kVerify,
    // As kCopy, and the source not touched since an earlier pass began, at the time given; looks into the
    // target only where it was.
    kCatchUp,
    // As kCatchUp after one of that kind, when nobody finds source or target by their names any more: what
    // that could miss, which are renames and removals behind its back. Leaves to kFollow the files that it
    // carries over.
    kSettle,
    // For a source that people have already been moved away from, and a target that they use: files made or
    // written since the time given and newer than their copies, and all of a folder that was made or moved
    // after the switch. Each appears at once and as a whole; where people have something of another kind by
    // its name, as NAME.old-NUMBER. Removes nothing and leaves folders' attributes alone.
    kFollow,
};

// Unix seconds.
struct SyncTimes {
    std::int64_t changedSince_s = 0;  // kCatchUp, kSettle, kFollow: what changed earlier was seen
    std::int64_t switched_s = 0;      // kFollow: not later than the moment at which people were moved away
};

// What passes of kFollow tell each other about files that had writers: such a file is carried over once more
// when its writer is gone, whatever its times say.
struct WrittenFiles {
    bool isKnown = false;  // false: an earlier process may have seen some; the pass compares all files
    std::set<std::pair<dev_t, ino_t>> files;
};

struct SyncCounts {
    std::uint64_t copiedEntries = 0;
    std::uint64_t copied_bytes = 0;
    std::uint64_t removedEntries = 0;
    std::uint64_t differing = 0;      // kVerify: copies that were made anew
    std::uint64_t beingWritten = 0;   // kFollow: files that someone has open for writing, or was faster with
    std::uint64_t carriedBeside = 0;  // kFollow: entries that got another name
};

// Makes the folder open as `target` hold what the one open as `source` holds: files, folders, links, pipes,
// sockets and devices; owners, modes, times, ACLs, extended attributes, holes, and hard links within the
// tree. What `target` has more goes. Subvolumes become folders. Both may change meanwhile: what vanishes is
// skipped, a file that is written to during its copy gets an older time than its source, so that the next
// pass copies it again.
//   written   for kFollow
//   observer  gets the bytes of the source's content that are dealt with, and 0 at every entry; may throw
// Bounded memory but for hard links, of which each file with names still to come costs its path. Needs root;
// both descriptors are taken as they are and stay open. Throws CopyError; a mount inside the source is EXDEV.
SyncCounts SyncTree(int source, int target, SyncMode mode, const SyncTimes& times,
                    const CopyObserver& observer, WrittenFiles* written = nullptr);

// What a tree will need.
struct TreeSize {
    std::uint64_t entries = 0;
    std::uint64_t content_bytes = 0;  // holes left out, a file with several names counted once
};

// Adds up the tree open as `source`. Throws as SyncTree.
TreeSize MeasureTree(int source, const CopyObserver& observer);

// Content bytes of a file without its holes.
std::uint64_t ContentBytes(const struct stat& status);

}  // namespace korv
