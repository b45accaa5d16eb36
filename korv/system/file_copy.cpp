#include "korv/system/file_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "korv/system/extended_attributes.h"

namespace korv {

namespace {

using Where = CopyError::Where;

// A multiple of what encrypting file systems write at once.
constexpr std::size_t kBlock = std::size_t{1} << 20;
constexpr mode_t kModeBits = 07777;

std::vector<char>& Buffer(std::size_t which) {
    static std::array<std::vector<char>, 2> buffers{std::vector<char>(kBlock), std::vector<char>(kBlock)};
    return buffers.at(which);
}

void Check(bool isRight, Where where, const char* action) {
    if (!isRight) {
        throw CopyError{where, errno, action};
    }
}

std::size_t ReadAt(int file, std::vector<char>& buffer, off_t offset, std::size_t most, Where where) {
    std::size_t total = 0;
    while (total < most) {
        const ssize_t length =
            pread(file, buffer.data() + total, most - total, offset + static_cast<off_t>(total));
        if (length < 0 && errno == EINTR) {
            continue;
        }
        Check(length >= 0, where, "read a file");
        if (length == 0) {
            break;
        }
        total += static_cast<std::size_t>(length);
    }
    return total;
}

void WriteAt(int file, const char* data, std::size_t length, off_t offset) {
    while (length > 0) {
        const ssize_t written = pwrite(file, data, length, offset);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        Check(written > 0, Where::kTarget, "write a file");
        data += written;
        length -= static_cast<std::size_t>(written);
        offset += written;
    }
}

// Lets the kernel copy [offset, end) as long as it can; returns where it stopped.
off_t CopyInKernel(int source, int target, off_t offset, off_t end, const CopyObserver& observer) {
    while (offset < end) {
        off_t from = offset;
        off_t to = offset;
        const auto most = static_cast<std::size_t>(std::min<off_t>(end - offset, 64 * off_t{kBlock}));
        const ssize_t length = copy_file_range(source, &from, target, &to, most, 0);
        if (length <= 0) {
            Check(length == 0 || (errno != ENOSPC && errno != EDQUOT && errno != EIO), Where::kTarget,
                  "copy a file");
            break;
        }
        offset += length;
        observer(static_cast<std::uint64_t>(length));
    }
    return offset;
}

// Returns where it stopped, at the latest at `end`.
off_t CopyRange(int source, int target, off_t offset, off_t end, const CopyObserver& observer) {
    offset = CopyInKernel(source, target, offset, end, observer);
    std::vector<char>& buffer = Buffer(0);
    while (offset < end) {
        const auto most = static_cast<std::size_t>(std::min<off_t>(end - offset, kBlock));
        const std::size_t length = ReadAt(source, buffer, offset, most, Where::kSource);
        WriteAt(target, buffer.data(), length, offset);
        observer(length);
        offset += static_cast<off_t>(length);
        if (length < most) {
            break;  // it has become shorter meanwhile
        }
    }
    return offset;
}

// Where the file has content at or behind `offset`; `offset` itself when the file system can't tell.
off_t NextData(int file, off_t offset, off_t size) {
    if (offset >= size) {
        return size;
    }
    const off_t data = lseek(file, offset, SEEK_DATA);
    if (data < 0) {
        return errno == ENXIO ? size : offset;
    }
    return data;
}

bool IsSameTime(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

}  // namespace

void CopyContent(int source, int target, const CopyObserver& observer) {
    struct stat status {};
    Check(fstat(source, &status) == 0, Where::kSource, "look at a file");
    posix_fadvise(source, 0, 0, POSIX_FADV_SEQUENTIAL);
    off_t offset = 0;
    off_t written = 0;
    while (offset < status.st_size) {
        off_t data = lseek(source, offset, SEEK_DATA);
        if (data < 0 && errno == ENXIO) {
            break;  // only a hole is left
        }
        const bool knowsHoles = data >= 0;
        data = knowsHoles ? data : offset;
        const off_t hole = knowsHoles ? lseek(source, data, SEEK_HOLE) : status.st_size;
        const off_t end = hole > data ? std::min(hole, status.st_size) : status.st_size;
        written = CopyRange(source, target, data, end, observer);
        offset = end;
    }
    Check(written == status.st_size || ftruncate(target, status.st_size) == 0, Where::kTarget,
          "set a file's size");
}

bool HasSameContent(int source, int target, const CopyObserver& observer) {
    struct stat left {};
    struct stat right {};
    Check(fstat(source, &left) == 0, Where::kSource, "look at a file");
    Check(fstat(target, &right) == 0, Where::kTarget, "look at a file");
    if (left.st_size != right.st_size) {
        return false;
    }
    posix_fadvise(source, 0, 0, POSIX_FADV_SEQUENTIAL);
    posix_fadvise(target, 0, 0, POSIX_FADV_SEQUENTIAL);
    off_t offset = 0;
    while (true) {
        offset = std::min(NextData(source, offset, left.st_size), NextData(target, offset, left.st_size));
        if (offset >= left.st_size) {
            return true;
        }
        const std::size_t length = ReadAt(source, Buffer(0), offset, kBlock, Where::kSource);
        const std::size_t copied = ReadAt(target, Buffer(1), offset, kBlock, Where::kTarget);
        observer(length);
        if (length != copied || length == 0 || std::memcmp(Buffer(0).data(), Buffer(1).data(), length) != 0) {
            return false;
        }
        offset += static_cast<off_t>(length);
    }
}

// Changing the owner clears mode bits and capabilities, writing content clears capabilities, changing the
// mode rewrites an ACL's mask, and all of it touches times, hence the order.
void CopyRights(const struct stat& status, int target) {
    struct stat copy {};
    Check(fstat(target, &copy) == 0, Where::kTarget, "look at a copy");
    // A new file mostly has both already, and on an encrypted folder each call is a way to another process.
    if (copy.st_uid != status.st_uid || copy.st_gid != status.st_gid) {
        Check(fchown(target, status.st_uid, status.st_gid) == 0, Where::kTarget, "set an owner");
        copy.st_mode = 0;
    }
    if ((copy.st_mode & kModeBits) != (status.st_mode & kModeBits)) {
        Check(fchmod(target, status.st_mode & kModeBits) == 0, Where::kTarget, "set a mode");
    }
}

void CopyAttributesAndTimes(int source, const struct stat& status, int target, bool isNew) {
    errno = AttributeFile(source).CopyTo(AttributeFile(target), isNew);
    Check(errno == 0, Where::kTarget, "set an attribute");
    const timespec times[] = {status.st_atim, status.st_mtim};
    Check(futimens(target, times) == 0, Where::kTarget, "set a time");
}

void CopyAttributes(int source, const struct stat& status, int target) {
    CopyRights(status, target);
    CopyAttributesAndTimes(source, status, target, false);
}

void CopyAttributes(const EntryRef& source, const struct stat& status, const EntryRef& target) {
    Check(fchownat(target.folder, target.name, status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW) == 0,
          Where::kTarget, "set an owner");
    if (!S_ISLNK(status.st_mode)) {
        Check(fchmodat(target.folder, target.name, status.st_mode & kModeBits, 0) == 0, Where::kTarget,
              "set a mode");
        errno = AttributeFile(source.folder, source.name).CopyTo(AttributeFile(target.folder, target.name));
        Check(errno == 0, Where::kTarget, "set an attribute");
    }
    const timespec times[] = {status.st_atim, status.st_mtim};
    Check(utimensat(target.folder, target.name, times, AT_SYMLINK_NOFOLLOW) == 0, Where::kTarget,
          "set a time");
}

bool HasSameAttributes(int source, const struct stat& sourceStatus, int target,
                       const struct stat& targetStatus) {
    if (sourceStatus.st_uid != targetStatus.st_uid || sourceStatus.st_gid != targetStatus.st_gid ||
        sourceStatus.st_mode != targetStatus.st_mode ||
        !IsSameTime(sourceStatus.st_mtim, targetStatus.st_mtim)) {
        return false;
    }
    if (source < 0 || target < 0) {
        return true;
    }
    const int difference = AttributeFile(source).Compare(AttributeFile(target));
    errno = difference;
    Check(difference == 0 || difference == EBADE, Where::kSource, "read an attribute");
    return difference == 0;
}

}  // namespace korv
