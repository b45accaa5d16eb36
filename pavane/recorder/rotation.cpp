#include "pavane/recorder/rotation.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <utility>
#include <vector>

#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "include/folder_stream.h"
#include "include/run_as_scope.h"
#include "pavane/recorder/recording_walk.h"

namespace pavane {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kQuiet_s = 60;

class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
    }
    explicit operator bool() const { return m_descriptor >= 0; }
    int Get() const { return m_descriptor; }

private:
    int m_descriptor;
};

Descriptor OpenShare(const std::string& path) {
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    // The root folder holds a system, not recordings.
    if (path.empty() || path.front() != '/' || path.find_first_not_of('/') == std::string::npos) {
        return Descriptor();
    }
    return Descriptor(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

bool IsOlder(const Recording& left, const Recording& right) {
    return left.modified_ns != right.modified_ns ? left.modified_ns < right.modified_ns
                                                 : left.path < right.path;
}

// The oldest recordings seen so far: a heap with the newest of them on top.
class Oldest {
public:
    explicit Oldest(std::size_t most) : m_most(std::max<std::size_t>(most, 1)) {}

    void Add(Recording&& recording) {
        if (m_heap.size() == m_most) {
            if (!IsOlder(recording, m_heap.front())) {
                return;
            }
            std::pop_heap(m_heap.begin(), m_heap.end(), IsOlder);
            m_heap.pop_back();
        }
        m_heap.push_back(std::move(recording));
        std::push_heap(m_heap.begin(), m_heap.end(), IsOlder);
    }

    // Oldest first.
    std::vector<Recording> Take() && {
        std::sort_heap(m_heap.begin(), m_heap.end(), IsOlder);
        return std::move(m_heap);
    }

private:
    std::size_t m_most;
    std::vector<Recording> m_heap;
};

// Whether someone has the file open for writing. A read lease is refused then.
bool IsBeingWritten(int file, std::int64_t modified_ns) {
    // A writer that opens it right now waits for the lease's end, and this process must not die of the
    // kernel's note about it.
    fcntl(file, F_SETSIG, SIGURG);
    if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
        fcntl(file, F_SETLEASE, F_UNLCK);
        return false;
    }
    return errno == EAGAIN || time(nullptr) - modified_ns / kNanosecondsPerSecond < kQuiet_s;
}

// Removes recordings, mostly several of one folder after each other.
class Remover {
public:
    Remover(int share, RotationResult& result) : m_share(share), m_result(result) {}
    Remover(const Remover&) = delete;
    Remover& operator=(const Remover&) = delete;
    ~Remover() { LeaveFolder(); }

    // True when its space is free now.
    bool Remove(const Recording& recording) {
        const std::size_t slash = recording.path.rfind('/');
        const std::string folder = slash == std::string::npos ? "" : recording.path.substr(0, slash);
        const std::string name = recording.path.substr(folder.empty() ? 0 : slash + 1);
        if (!EnterFolder(folder) || !MayRemove(name, recording)) {
            return false;
        }
        if (unlinkat(m_opened.Get(), name.c_str(), 0) != 0) {
            CountFailure(errno);
            return false;
        }
        m_hasRemoved = true;
        Note(recording);
        return true;
    }

private:
    bool EnterFolder(const std::string& folder) {
        if (m_opened && folder == m_folder) {
            return true;
        }
        LeaveFolder();
        m_opened =
            Descriptor(OpenBeneath(m_share, folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY));
        m_folder = folder;
        if (!m_opened) {
            CountFailure(errno);
        }
        return static_cast<bool>(m_opened);
    }

    // Removes the folder when it has become empty, and the ones above it up to the camera's own.
    void LeaveFolder() {
        m_opened = Descriptor();
        while (m_hasRemoved) {
            const std::size_t slash = m_folder.rfind('/');
            if (slash == std::string::npos) {
                break;
            }
            const std::string above = m_folder.substr(0, slash);
            const Descriptor opened(OpenBeneath(m_share, above.c_str(), O_RDONLY | O_DIRECTORY));
            if (!opened || unlinkat(opened.Get(), m_folder.c_str() + slash + 1, AT_REMOVEDIR) != 0) {
                break;
            }
            ++m_result.removedFolders;
            m_folder = above;
        }
        m_hasRemoved = false;
    }

    // Only what the walk has seen, unchanged, and nobody writes.
    bool MayRemove(const std::string& name, const Recording& recording) {
        const Descriptor file(OpenBeneath(m_opened.Get(), name.c_str(), O_RDONLY | O_NONBLOCK));
        struct stat status {};
        if (!file || fstat(file.Get(), &status) != 0) {
            // Without O_NONBLOCK this would wait for the holder of a write lease.
            errno == EAGAIN ? static_cast<void>(++m_result.inUse) : CountFailure(errno);
            return false;
        }
        const std::int64_t modified_ns =
            status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec;
        if (!S_ISREG(status.st_mode) || status.st_ino != recording.inode ||
            modified_ns != recording.modified_ns || IsBeingWritten(file.Get(), modified_ns)) {
            ++m_result.inUse;
            return false;
        }
        return true;
    }

    void Note(const Recording& recording) {
        const std::int64_t modified_s = recording.modified_ns / kNanosecondsPerSecond;
        m_result.oldest_s = m_result.removedFiles == 0 ? modified_s : std::min(m_result.oldest_s, modified_s);
        m_result.newest_s = m_result.removedFiles == 0 ? modified_s : std::max(m_result.newest_s, modified_s);
        ++m_result.removedFiles;
        m_result.removed_bytes += recording.disk_bytes;
    }

    void CountFailure(int error) {
        if (error != ENOENT) {
            ++m_result.failed;
        }
    }

    int m_share;
    RotationResult& m_result;
    Descriptor m_opened;
    std::string m_folder;
    bool m_hasRemoved = false;
};

// One walk and the removals after it.
struct Round {
    bool isWalked = false;
    bool isStopped = false;
    bool mustRepeat = false;  // more may be removed, or what is left must be counted again
};

Round RunRound(int share, std::uint64_t limit_bytes, const RotationOptions& options, RotationResult& result) {
    Round round;
    Oldest oldest(options.mostCandidates);
    std::uint64_t usage_bytes = 0;
    result.failed = result.inUse = 0;  // those of an earlier round are met again
    round.isWalked = WalkRecordings(share, result.failed, [&](Recording&& recording) {
        usage_bytes += recording.disk_bytes;
        oldest.Add(std::move(recording));
        return true;
    });
    result.usage_bytes = usage_bytes;
    if (!round.isWalked) {
        return round;
    }
    Remover remover(share, result);
    for (const Recording& recording : std::move(oldest).Take()) {
        round.isStopped = result.usage_bytes > limit_bytes && options.shouldStop && options.shouldStop();
        if (result.usage_bytes <= limit_bytes || round.isStopped) {
            break;
        }
        if (remover.Remove(recording)) {
            result.usage_bytes -= recording.disk_bytes;
            // The space of a file with several names is free when the last of them is gone.
            round.mustRepeat = round.mustRepeat || recording.hasOtherNames;
        }
    }
    return round;
}

}  // namespace

RotationResult RotateShare(const std::string& sharePath, std::uint64_t limit_bytes,
                           const RotationOptions& options) {
    RotationResult result;
    const RunAsScope root = IF_RUN_AS;
    const Descriptor share = OpenShare(sharePath);
    if (!root || !share) {
        return result;
    }
    while (true) {
        const std::uint64_t removedBefore = result.removedFiles;
        const Round round = RunRound(share.Get(), limit_bytes, options, result);
        if (!round.isWalked || round.isStopped) {
            result.end = round.isStopped ? RotationEnd::kStopped : RotationEnd::kNoFolder;
            return result;
        }
        const bool isWithin = result.usage_bytes <= limit_bytes;
        if ((isWithin && !round.mustRepeat) || result.removedFiles == removedBefore) {
            result.end = isWithin ? RotationEnd::kWithinLimit : RotationEnd::kNothingLeft;
            return result;
        }
    }
}

}  // namespace pavane
