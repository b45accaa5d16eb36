#pragma once

#include <string>

#include "korv/system/file_copy.h"
#include "korv/system/file_descriptor.h"

namespace korv {

// A folder that only root can enter, at the top of a tree that people use: entries are made and completed in
// it, and get their names and places at once. Whoever may write to the tree can rename the folder, but reach
// nothing in it. Needs root; failures are thrown as CopyError.
class CarryingFolder {
public:
    // `top` is the tree's own folder. What a killed process has left there goes first.
    explicit CarryingFolder(int top);
    CarryingFolder(const CarryingFolder&) = delete;
    CarryingFolder& operator=(const CarryingFolder&) = delete;
    ~CarryingFolder();

    // Where the next entry is to be made: nothing is there.
    EntryRef Making();

    // Moves what was made to `name` in `folder`.
    //   replaced  what was seen there before, null for nothing
    // False when somebody has put something else there, or changed it, since: what was made is gone then.
    bool Place(int folder, const char* name, const struct stat* replaced);

private:
    void Make();

    int m_top;
    std::string m_name;
    FileDescriptor m_folder;  // made with the first entry
    timespec m_before{};      // the top folder's time, before and after it was made
    timespec m_changed{};
};

}  // namespace korv
