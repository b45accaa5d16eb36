#include "korv/system/sync_entry.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "include/folder_stream.h"

namespace korv {

namespace {

using Where = CopyError::Where;

}  // namespace

void FailCopy(Where where, int error, const char* action) { throw CopyError{where, error, action}; }

void CheckCopy(bool isRight, Where where, const char* action) {
    if (!isRight) {
        FailCopy(where, errno, action);
    }
}

bool StatEntry(int folder, const char* name, struct stat& status, Where where) {
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return true;
    }
    CheckCopy(errno == ENOENT, where, "look at an entry");
    return false;
}

bool IsSameKind(const struct stat& left, const struct stat& right) {
    return (left.st_mode & S_IFMT) == (right.st_mode & S_IFMT);
}

bool IsSameKindAndTime(const struct stat& left, const struct stat& right) {
    return IsSameKind(left, right) && left.st_rdev == right.st_rdev &&
           left.st_mtim.tv_sec == right.st_mtim.tv_sec && left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

bool IsNewer(const struct stat& left, const struct stat& right) {
    return left.st_mtim.tv_sec != right.st_mtim.tv_sec ? left.st_mtim.tv_sec > right.st_mtim.tv_sec
                                                       : left.st_mtim.tv_nsec > right.st_mtim.tv_nsec;
}

std::string NameBeside(const std::string& name, ino_t inode) {
    constexpr std::size_t kLongestName = 255;
    constexpr unsigned kLeadingBits = 0xc0;
    constexpr unsigned kInsideLetter = 0x80;  // UTF-8
    const std::string mark = ".old-" + std::to_string(inode);
    std::size_t length = std::min(name.size(), kLongestName - mark.size());
    while (length < name.size() && length > 0 &&
           (static_cast<unsigned char>(name[length]) & kLeadingBits) == kInsideLetter) {
        --length;
    }
    return name.substr(0, length) + mark;
}

std::string ReadLink(const EntryRef& link, Where where) {
    constexpr std::size_t kLongest = 4096;
    std::string text(kLongest, '\0');
    const ssize_t length = readlinkat(link.folder, link.name, text.data(), text.size());
    CheckCopy(length >= 0, where, "read a link");
    text.resize(static_cast<std::size_t>(length));
    return text;
}

// Name by name.
FileDescriptor OpenFolderOf(int root, const std::string& path, std::string& name) {
    FileDescriptor folder(fcntl(root, F_DUPFD_CLOEXEC, 0));
    std::size_t start = 0;
    for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
        folder = FileDescriptor(
            OpenBeneath(folder.Get(), path.substr(start, slash - start).c_str(), O_RDONLY | O_DIRECTORY));
        if (!folder) {
            CheckCopy(errno == ENOENT || errno == ENOTDIR || errno == ELOOP, Where::kTarget,
                      "find a file's first name");
            break;
        }
        start = slash + 1;
    }
    name = path.substr(start);
    return folder;
}

// An open that waits must not meet what somebody may have put there instead, such as a pipe.
FileDescriptor OpenRegular(int folder, const char* name) {
    FileDescriptor file(OpenBeneath(folder, name, O_RDONLY | O_NOATIME | O_NONBLOCK));
    if (!file && errno == EAGAIN) {
        const FileDescriptor found(OpenBeneath(folder, name, O_PATH));
        struct stat status {};
        if (found && fstat(found.Get(), &status) == 0 && S_ISREG(status.st_mode)) {
            file = FileDescriptor(open(("/proc/self/fd/" + std::to_string(found.Get())).c_str(),
                                       O_RDONLY | O_NOATIME | O_CLOEXEC));
        } else {
            errno = ENOENT;
        }
    }
    CheckCopy(file || errno == ENOENT || errno == ELOOP, Where::kSource, "open a file");
    return file;
}

// A read lease is refused while there is a writer.
bool IsBeingWritten(int file) {
    fcntl(file, F_SETSIG, SIGURG);  // ignored, unlike what a broken lease would send by default
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(file, F_SETLEASE, F_UNLCK);
        return false;
    }
    return errno == EAGAIN;
}

}  // namespace korv
