#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "include/folder_stream.h"
#include "korv/system/folder_stack.h"
#include "korv/system/tree_sync.h"

namespace korv {

namespace {

constexpr std::uint64_t kStatBlock = 512;

void CheckSource(int error, const char* action) {
    if (error != 0 && error != ENOENT) {
        throw CopyError{CopyError::Where::kSource, error, action};
    }
}

void GoDown(FolderStack& folders, std::vector<FolderStream>& streams, const char* name) {
    const int error = folders.Enter(name);
    CheckSource(error, "enter a folder");
    if (error != 0) {
        return;  // it has vanished
    }
    streams.emplace_back();
    if (streams.size() > FolderStack::kOpenLevels) {
        streams[streams.size() - FolderStack::kOpenLevels - 1].Suspend();
    }
}

}  // namespace

std::uint64_t ContentBytes(const struct stat& status) {
    return std::min(static_cast<std::uint64_t>(status.st_size),
                    static_cast<std::uint64_t>(status.st_blocks) * kStatBlock);
}

TreeSize MeasureTree(int source, const CopyObserver& observer) {
    TreeSize size;
    FolderStack folders{FileDescriptor(fcntl(source, F_DUPFD_CLOEXEC, 0))};
    std::vector<FolderStream> streams(1);
    while (true) {
        FolderEntry entry;
        if (!streams.back().Next(folders.Current(), entry)) {
            CheckSource(streams.back().Error(), "list a folder");
            if (folders.Depth() == 0) {
                return size;
            }
            CheckSource(folders.Leave(), "go up from a folder");
            streams.pop_back();
            continue;
        }
        observer(0);
        struct stat status {};
        if (fstatat(folders.Current(), entry.name.data(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            CheckSource(errno, "look at an entry");
            continue;
        }
        ++size.entries;
        if (S_ISREG(status.st_mode)) {
            size.content_bytes += ContentBytes(status) / status.st_nlink;
        } else if (S_ISDIR(status.st_mode)) {
            GoDown(folders, streams, entry.name.data());
        }
    }
}

}  // namespace korv
