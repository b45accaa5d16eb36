#include "pavane/recorder/recording_walk.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "include/folder_stream.h"

namespace pavane {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t kStatBlock = 512;

struct Level {
    int folder = -1;
    FolderStream stream;
    std::size_t pathLength = 0;  // of the walk's path with this folder's name and a slash
};

class Walk {
public:
    Walk(std::uint64_t& unreadable, const std::function<bool(Recording&&)>& found)
        : m_unreadable(unreadable), m_found(found) {}
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    ~Walk() {
        for (const Level& level : m_levels) {
            close(level.folder);
        }
    }

    bool Run(int share) {
        if (!Enter(share, ".")) {
            return false;
        }
        while (!m_levels.empty()) {
            Level& level = m_levels.back();
            FolderEntry entry;
            if (level.stream.Next(level.folder, entry)) {
                if (!Visit(level, entry)) {
                    return false;
                }
                continue;
            }
            const int error = level.stream.Error();
            if (error != 0 && m_levels.size() == 1) {
                return false;
            }
            Count(error);
            close(level.folder);
            m_levels.pop_back();
        }
        return true;
    }

private:
    bool Visit(const Level& level, const FolderEntry& entry) {
        if (m_levels.size() == 1 && entry.name.front() == '.') {
            return true;
        }
        m_path.resize(level.pathLength);
        m_path += entry.name;
        unsigned char type = entry.type;
        struct stat status {};
        if (type == DT_REG || type == DT_UNKNOWN) {
            if (fstatat(level.folder, entry.name.data(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
                Count(errno);
                return true;
            }
            type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (type == DT_DIR) {
            m_path += '/';
            Enter(level.folder, entry.name.data());
            return true;
        }
        return type != DT_REG || m_found(Describe(status));
    }

    Recording Describe(const struct stat& status) const {
        Recording recording;
        recording.path = m_path;
        recording.modified_ns = status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec;
        recording.disk_bytes = static_cast<std::uint64_t>(status.st_blocks) * kStatBlock / status.st_nlink;
        recording.inode = status.st_ino;
        recording.hasOtherNames = status.st_nlink > 1;
        return recording;
    }

    bool Enter(int above, const char* name) {
        Level level;
        level.pathLength = m_path.size();
        if (m_levels.size() > kDeepestRecording) {
            ++m_unreadable;
            return false;
        }
        level.folder = OpenBeneath(above, name, O_RDONLY | O_DIRECTORY);
        if (level.folder < 0) {
            Count(errno);
            return false;
        }
        m_levels.push_back(std::move(level));
        return true;
    }

    void Count(int error) {
        if (error != 0 && error != ENOENT) {
            ++m_unreadable;
        }
    }

    std::uint64_t& m_unreadable;
    const std::function<bool(Recording&&)>& m_found;
    std::vector<Level> m_levels;
    std::string m_path;
};

}  // namespace

bool WalkRecordings(int share, std::uint64_t& unreadable, const std::function<bool(Recording&&)>& found) {
    return Walk(unreadable, found).Run(share);
}

}  // namespace pavane
