#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/stat.h>

#include "korv/system/carrying_folder.h"
#include "korv/system/file_copy.h"
#include "korv/system/folder_stack.h"
#include "korv/system/tree_sync.h"

namespace korv {

// The copy of a tree, written folder by folder: `folders` is at the folder that the next calls mean. Throws
// CopyError.
class TargetTree {
public:
    // `root` is the tree's own folder, open as long as the object lives.
    //   isInUse  people use it: each entry is made out of their reach and appears when it is complete
    TargetTree(int root, bool isInUse, const CopyObserver& observer, SyncCounts& counts);

    FolderStack folders;

    // Copies the entry `source`, whose facts are `status`, to `name`.
    //   copy  what is there of that name, null for nothing; it is replaced
    // False when people were faster with something of that name, which stays.
    bool MakeFolder(const EntryRef& source, const std::string& name, const struct stat& status);
    void CopySpecial(const EntryRef& source, const std::string& name, const struct stat& status,
                     const struct stat* copy);
    // The same for a file that is open as `source`. False when somebody writes it: the copy has an earlier
    // time, so that it will be made once more, since what is written may leave the time as it is.
    bool CopyRegular(int source, const std::string& name, const struct stat* copy);
    // The inode of the copy that CopyRegular made last; 0 when somebody was faster.
    ino_t LastPlaced() const { return m_lastPlaced; }
    // Makes `name` another name of the file at `firstPath` of this tree. False when that isn't there.
    //   inode  of that file; 0 for whichever is there
    bool Link(const std::string& firstPath, ino_t inode, const std::string& name, const struct stat* copy);

    // Removes the entry and all below it.
    void Remove(const std::string& name);
    // Removes what the folder open as `source` doesn't have.
    void RemoveVanished(int source);
    // Gives the folder what the one open as `source` has.
    void CopyFolderAttributes(int source) const;

private:
    EntryRef Making(const std::string& name);
    bool Place(const std::string& name, const struct stat* copy);
    void RemoveCopy(const std::string& name, const struct stat* copy);

    int m_root;
    std::optional<CarryingFolder> m_carrying;
    ino_t m_lastPlaced = 0;
    const CopyObserver& m_observer;
    SyncCounts& m_counts;
};

}  // namespace korv
