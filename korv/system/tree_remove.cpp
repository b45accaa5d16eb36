#include "korv/system/tree_remove.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <optional>
#include <utility>

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "include/folder_stream.h"
#include "include/run_as_scope.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/folder_stack.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

constexpr ino_t kSubvolumeInode = 256;  // of every subvolume's root
// How often a folder that is not empty at the end of its list is read again.
constexpr int kMostPasses = 8;
constexpr std::uint64_t kEntriesBetweenQuestions = 256;

struct statx StatOf(int folder, const char* name) {
    struct statx status {};
    if (statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_TYPE | STATX_INO,
              &status) != 0) {
        status = {};
    }
    return status;
}

// What a refusal `error` to remove `name` from `folder` means.
RemoveObstacle Explain(int folder, const char* name, int error) {
    constexpr std::uint64_t kFixed = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
    const struct statx entry = StatOf(folder, name);
    switch (error) {
        case EXDEV:
            return RemoveObstacle::kMount;
        case EBUSY:
        case ETXTBSY:
            return (entry.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 ? RemoveObstacle::kMount
                                                                       : RemoveObstacle::kBusy;
        case EROFS:
            return RemoveObstacle::kReadOnly;
        case EPERM:
        case EACCES:
            return ((entry.stx_attributes | StatOf(folder, "").stx_attributes) & kFixed) != 0
                       ? RemoveObstacle::kImmutable
                       : RemoveObstacle::kNotPermitted;
        case ENOENT:
        case ENOTEMPTY:
        case ESTALE:
            return RemoveObstacle::kChanging;
        default:
            return RemoveObstacle::kFailed;
    }
}

bool IsBtrfs(int folder) {
    struct statfs facts {};
    return fstatfs(folder, &facts) == 0 && facts.f_type == BTRFS_SUPER_MAGIC;
}

// One removal. The walk goes depth first; a folder is removed when its list of entries has come to its end.
class Remover {
public:
    Remover(FileDescriptor parent, std::string name, const std::function<bool()>& shouldStop)
        : m_stack(std::move(parent)), m_rootName(std::move(name)), m_shouldStop(shouldStop) {
        m_levels.emplace_back();
    }

    TreeRemoval Run() {
        RemoveEntry({m_rootName, DT_UNKNOWN});
        while (m_stack.Depth() > 0 && !m_isAbandoned && !m_result.isStopped) {
            Step();
        }
        const int parent = m_stack.Depth() == 0 ? m_stack.Current() : -1;
        struct stat status {};
        m_result.isGone = parent >= 0 &&
                          fstatat(parent, m_rootName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 &&
                          errno == ENOENT;
        if (m_result.isGone && fsync(parent) != 0) {
            AddProblem(m_rootName, errno);
        }
        return m_result;
    }

private:
    struct Level {
        FolderStream stream;
        bool isBlocked = false;  // something in it stays, and so must it
        int passes = 0;
    };

    void Step() {
        if (++m_steps % kEntriesBetweenQuestions == 0 && m_shouldStop && m_shouldStop()) {
            m_result.isStopped = true;
            return;
        }
        Level& level = m_levels.back();
        FolderEntry entry;
        if (level.stream.Next(m_stack.Current(), entry)) {
            RemoveEntry(entry);
        } else if (const int error = level.stream.Error()) {
            // A folder that someone else has removed meanwhile can't be listed any more.
            Block("", error);
            GoUp();
        } else {
            FinishFolder(level);
        }
    }

    void RemoveEntry(const FolderEntry& entry) {
        if (entry.type != DT_DIR) {
            if (unlinkat(m_stack.Current(), entry.name.data(), 0) == 0) {
                ++m_result.files;
                return;
            }
            if (errno != EISDIR) {
                Block(entry.name.data(), errno);
                return;
            }
        }
        EnterFolder(std::string(entry.name));
    }

    void EnterFolder(const std::string& name) {
        if (const int error = m_stack.Enter(name.c_str())) {
            Block(name, error);
            return;
        }
        if (m_stack.Inode() == kSubvolumeInode && IsBtrfs(m_stack.Current())) {
            m_stack.Leave();
            RemoveSubvolume(name);
            return;
        }
        m_levels.emplace_back();
        if (m_levels.size() > FolderStack::kOpenLevels) {
            m_levels[m_levels.size() - FolderStack::kOpenLevels - 1].stream.Suspend();
        }
    }

    void RemoveSubvolume(const std::string& name) {
        const auto end = btrfs_util_delete_subvolume_fd(m_stack.Current(), name.c_str(),
                                                        BTRFS_UTIL_DELETE_SUBVOLUME_RECURSIVE);
        if (end == BTRFS_UTIL_OK) {
            ++m_result.subvolumes;
        } else {
            Block(name, errno);
        }
    }

    // The list has come to its end. Some file systems skip entries when others are removed meanwhile.
    void FinishFolder(Level& level) {
        if (level.isBlocked) {
            GoUp();
            return;
        }
        if (const int error = m_stack.OpenAbove()) {
            Abandon(error);
            return;
        }
        const std::string name = m_stack.Name();
        if (unlinkat(m_stack.Above(), name.c_str(), AT_REMOVEDIR) == 0) {
            ++m_result.folders;
            GoUp();
        } else if (errno == ENOTEMPTY && ++level.passes < kMostPasses) {
            level.stream.Rewind();
        } else {
            const int error = errno;
            GoUp();
            Block(name, error);
        }
    }

    void GoUp() {
        if (const int error = m_stack.Leave()) {
            Abandon(error);
            return;
        }
        const bool isBlocked = m_levels.back().isBlocked;
        m_levels.pop_back();
        m_levels.back().isBlocked = m_levels.back().isBlocked || isBlocked;
    }

    void Abandon(int error) {
        AddProblem("", error);
        m_isAbandoned = true;
    }

    // Leaves `name` of the current folder. What is gone already is fine.
    void Block(const std::string& name, int error) {
        if (error != ENOENT) {
            AddProblem(name, error);
            m_levels.back().isBlocked = true;
        }
    }

    void AddProblem(const std::string& name, int error) {
        ++m_result.problemCount;
        if (m_result.problems.size() < TreeRemoval::kListedProblems) {
            m_result.problems.push_back(
                {Explain(m_stack.Current(), name.c_str(), error), error, m_stack.PathOf(name)});
        }
    }

    FolderStack m_stack;
    std::vector<Level> m_levels;  // beside the stack's
    std::string m_rootName;
    const std::function<bool()>& m_shouldStop;
    TreeRemoval m_result;
    std::uint64_t m_steps = 0;
    bool m_isAbandoned = false;
};

std::optional<std::string> PathOf(int folder) {
    std::array<char, PATH_MAX> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(folder);
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    return length > 0 ? std::optional(std::string(path.data(), static_cast<std::size_t>(length)))
                      : std::nullopt;
}

TreeRemoval Refused(RemoveObstacle obstacle, int error, const std::string& path) {
    TreeRemoval result;
    result.problemCount = 1;
    result.problems.push_back({obstacle, error, path});
    return result;
}

// The mounts in the tree `name` of `parent`, as a result without a removal; nothing when there are none.
std::optional<TreeRemoval> FindMounts(int parent, const std::string& name) {
    const auto path = PathOf(parent);
    if (!path) {
        return Refused(RemoveObstacle::kFailed, errno, name);
    }
    const std::string tree = (*path == "/" ? "" : *path) + "/" + name;
    TreeRemoval result;
    for (const std::string& mount : MountsAtOrBeneath(ReadMounts(), tree)) {
        ++result.problemCount;
        if (result.problems.size() < TreeRemoval::kListedProblems) {
            result.problems.push_back({RemoveObstacle::kMount, EBUSY, name + mount.substr(tree.size())});
        }
    }
    return result.problemCount > 0 ? std::optional(result) : std::nullopt;
}

// Whether `path` leads to or through something that is neither a folder nor a link.
bool IsBelowFile(int base, const std::string& path) {
    const FileDescriptor found(OpenBeneath(base, path.c_str(), O_PATH));
    struct stat status {};
    return found ? fstat(found.Get(), &status) == 0 && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode)
                 : errno == ENOTDIR;
}

}  // namespace

TreeRemoval RemoveTree(int base, const std::string& path, const std::function<bool()>& shouldStop) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        return Refused(RemoveObstacle::kNotPermitted, EPERM, path);
    }
    const std::size_t slash = path.rfind('/');
    const std::string above = slash == std::string::npos ? "." : path.substr(0, slash);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty() || name == "." || name == ".." || path.front() == '/') {
        return Refused(RemoveObstacle::kFailed, EINVAL, path);
    }
    FileDescriptor parent(OpenBeneath(base, above.c_str(), O_RDONLY | O_DIRECTORY));
    if (!parent) {
        const int error = errno;
        if (error == ENOENT || IsBelowFile(base, above)) {
            TreeRemoval nothing;
            nothing.isGone = true;
            return nothing;
        }
        return Refused(Explain(base, above.c_str(), error), error, above);
    }
    if (auto mounts = FindMounts(parent.Get(), name)) {
        return *mounts;
    }
    return Remover(std::move(parent), name, shouldStop).Run();
}

}  // namespace korv
