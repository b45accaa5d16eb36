#include "korv/system/folder_stack.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include <sys/stat.h>

#include "include/folder_stream.h"

namespace korv {

int FolderStack::Identify(Level& level) {
    struct stat status {};
    if (fstat(level.folder.Get(), &status) != 0) {
        return errno;
    }
    level.device = status.st_dev;
    level.inode = status.st_ino;
    return 0;
}

FolderStack::FolderStack(FileDescriptor root) {
    Level level;
    level.folder = std::move(root);
    if (const int error = Identify(level)) {
        throw std::system_error(error, std::generic_category(), "cannot look at a folder");
    }
    m_levels.push_back(std::move(level));
}

int FolderStack::Enter(const char* name) {
    Level level;
    level.folder = FileDescriptor(OpenBeneath(Current(), name, O_RDONLY | O_DIRECTORY));
    if (!level.folder) {
        return errno;
    }
    if (const int error = Identify(level)) {
        return error;
    }
    level.name = name;
    m_levels.push_back(std::move(level));
    if (m_levels.size() > kOpenLevels + 1) {
        m_levels[m_levels.size() - kOpenLevels - 2].folder = FileDescriptor();
    }
    return 0;
}

// The one place that goes up by "..": it leads elsewhere when someone has moved the folder.
int FolderStack::OpenAbove() {
    Level& above = m_levels[m_levels.size() - 2];
    if (above.folder) {
        return 0;
    }
    Level found;
    found.folder = FileDescriptor(openat(Current(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!found.folder) {
        return errno;
    }
    if (const int error = Identify(found)) {
        return error;
    }
    if (found.device != above.device || found.inode != above.inode) {
        return ESTALE;
    }
    above.folder = std::move(found.folder);
    return 0;
}

int FolderStack::Leave() {
    if (const int error = OpenAbove()) {
        return error;
    }
    m_levels.pop_back();
    return 0;
}

std::string FolderStack::PathOf(const std::string& name) const {
    constexpr std::size_t kShownAtEachEnd = 16;
    std::string path;
    for (std::size_t i = 1; i < m_levels.size(); ++i) {
        if (i == kShownAtEachEnd && m_levels.size() > 2 * kShownAtEachEnd) {
            i = m_levels.size() - kShownAtEachEnd;
            path += ".../";
        }
        path += m_levels[i].name + "/";
    }
    return path + name;
}

std::string FolderStack::FullPathOf(const std::string& name) const {
    std::string path;
    for (std::size_t i = 1; i < m_levels.size(); ++i) {
        path += m_levels[i].name + "/";
    }
    return path + name;
}

}  // namespace korv
