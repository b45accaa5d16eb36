#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "korv/system/file_descriptor.h"

namespace korv {

// The folders from a root down to the one where a walk is. Of a deep chain only the last few descriptors stay
// open, so that depth costs some dozen bytes a level and nothing else. Links are never followed and other
// mounts never entered.
class FolderStack {
public:
    // Levels above the current one whose descriptors stay open.
    static constexpr std::size_t kOpenLevels = 32;

    // `root` is open for reading.
    explicit FolderStack(FileDescriptor root);

    // Goes down into the folder `name`. 0, or errno and the walk stays where it is.
    int Enter(const char* name);

    // Goes back up. 0, or errno and the walk stays where it is; ESTALE when the folder has been moved away
    // from under the one it was in. Not to be called at the root.
    int Leave();

    int Current() const { return m_levels.back().folder.Get(); }
    std::size_t Depth() const { return m_levels.size() - 1; }
    const std::string& Name() const { return m_levels.back().name; }
    ino_t Inode() const { return m_levels.back().inode; }
    // The folder above the current one; -1 at the root or when it is not open.
    int Above() const { return Depth() > 0 ? m_levels[m_levels.size() - 2].folder.Get() : -1; }
    // Opens the folder above when it is not open. 0 or errno, as Leave.
    int OpenAbove();
    // From the root to `name` in the current folder, for people: the middle of a very long path is left out.
    std::string PathOf(const std::string& name) const;
    // The same in full, as long as it is.
    std::string FullPathOf(const std::string& name) const;

private:
    struct Level {
        std::string name;
        dev_t device = 0;
        ino_t inode = 0;
        FileDescriptor folder;
    };

    static int Identify(Level& level);

    std::vector<Level> m_levels;
};

}  // namespace korv
