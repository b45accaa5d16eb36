#include "korv/system/carrying_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <random>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <sys/xattr.h>

#include "include/folder_stream.h"
#include "korv/system/tree_remove.h"

namespace korv {

namespace {

constexpr std::string_view kPrefix = ".korv-carried-";
constexpr const char* kMark = "trusted.korv.carried";  // only root can set it
constexpr const char* kEntry = "entry";
constexpr mode_t kPlainModes = S_IRWXU | S_IRWXG | S_IRWXO;

void Check(bool isRight, const char* action) {
    if (!isRight) {
        throw CopyError{CopyError::Where::kTarget, errno, action};
    }
}

std::string RandomName() {
    std::random_device random;
    std::array<char, sizeof "0123456789abcdef"> text{};
    std::snprintf(text.data(), text.size(), "%08x%08x", random(), random());
    return std::string(kPrefix) + text.data();
}

FileDescriptor OpenPrivate(int top, const std::string& name) {
    FileDescriptor folder(OpenBeneath(top, name.c_str(), O_RDONLY | O_DIRECTORY));
    struct stat status {};
    const bool isPrivate = folder && fstat(folder.Get(), &status) == 0 && status.st_uid == 0 &&
                           (status.st_mode & kPlainModes) == S_IRWXU;
    return isPrivate ? std::move(folder) : FileDescriptor();
}

void RemoveEntry(int folder) {
    const TreeRemoval removal = RemoveTree(folder, kEntry);
    if (!removal.isGone) {
        errno = removal.problems.empty() ? EIO : removal.problems.front().error;
        Check(false, "remove what was carried over half");
    }
}

void RemoveLeftOnes(int top) {
    std::vector<std::string> names;
    FolderStream stream;
    FolderEntry entry;
    while (stream.Next(top, entry)) {
        if (entry.name.starts_with(kPrefix)) {
            names.emplace_back(entry.name);
        }
    }
    for (const std::string& name : names) {
        const FileDescriptor folder = OpenPrivate(top, name);
        if (folder && fgetxattr(folder.Get(), kMark, nullptr, 0) >= 0) {
            RemoveEntry(folder.Get());
            unlinkat(top, name.c_str(), AT_REMOVEDIR);  // somebody may have named another one so
        }
    }
}

bool IsSameTime(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool IsAsSeen(int folder, const char* name, const struct stat& seen) {
    struct stat now {};
    return fstatat(folder, name, &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_ino == seen.st_ino &&
           IsSameTime(now.st_ctim, seen.st_ctim);
}

}  // namespace

CarryingFolder::CarryingFolder(int top) : m_top(top), m_name(RandomName()) { RemoveLeftOnes(top); }

CarryingFolder::~CarryingFolder() {
    if (!m_folder) {
        return;
    }
    unlinkat(m_folder.Get(), kEntry, 0);
    unlinkat(m_folder.Get(), kEntry, AT_REMOVEDIR);
    struct stat now {};
    const bool isOnlyOurs = fstat(m_top, &now) == 0 && IsSameTime(now.st_mtim, m_changed);
    unlinkat(m_top, m_name.c_str(), AT_REMOVEDIR);
    if (isOnlyOurs) {
        const timespec times[] = {{0, UTIME_OMIT}, m_before};
        futimens(m_top, times);
    }
}

void CarryingFolder::Make() {
    struct stat status {};
    Check(fstat(m_top, &status) == 0, "look at a folder");
    m_before = status.st_mtim;
    Check(mkdirat(m_top, m_name.c_str(), S_IRWXU) == 0, "make a folder");
    m_folder = OpenPrivate(m_top, m_name);
    errno = m_folder ? 0 : EPERM;
    Check(static_cast<bool>(m_folder), "open a folder");
    Check(fsetxattr(m_folder.Get(), kMark, "1", 1, 0) == 0, "mark a folder");
    Check(fstat(m_top, &status) == 0, "look at a folder");
    m_changed = status.st_mtim;
}

EntryRef CarryingFolder::Making() {
    if (!m_folder) {
        Make();
    }
    RemoveEntry(m_folder.Get());
    return {m_folder.Get(), kEntry};
}

bool CarryingFolder::Place(int folder, const char* name, const struct stat* replaced) {
    const bool isAsSeen = replaced == nullptr || IsAsSeen(folder, name, *replaced);
    const unsigned flags = replaced == nullptr ? RENAME_NOREPLACE : 0;
    if (isAsSeen && renameat2(m_folder.Get(), kEntry, folder, name, flags) == 0) {
        return true;
    }
    Check(!isAsSeen || errno == EEXIST || errno == ENOTEMPTY || errno == EISDIR || errno == ENOTDIR,
          "name what was carried over");
    RemoveEntry(m_folder.Get());
    return false;
}

}  // namespace korv
