#include "pavane/recorder/log_config.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "platform/korv/configuration.h"

#include "pavane/log_line.h"

DbgLogCfg* g_pDbgLogCfg = nullptr;

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/recorder/log_config";
constexpr mode_t kConfigMode = 0600;

// The file behind g_pDbgLogCfg; writers lock it.
std::string& MappedPath() {
    static std::string path;
    return path;
}

class FileHandle {
public:
    explicit FileHandle(int fd) : m_fd(fd) {}
    ~FileHandle() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

DbgLogCfg* Map(int fd) {
    void* const memory = mmap(nullptr, sizeof(DbgLogCfg), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return memory != MAP_FAILED ? static_cast<DbgLogCfg*>(memory) : nullptr;
}

// Null also for a file of another layout, which an earlier version may have left.
DbgLogCfg* MapExisting(const std::string& path) {
    const FileHandle file(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    struct stat facts {};
    if (file.get() < 0 || fstat(file.get(), &facts) != 0 ||
        facts.st_size != static_cast<off_t>(sizeof(DbgLogCfg))) {
        return nullptr;
    }
    return Map(file.get());
}

// The file becomes visible under its name only when it is complete, so that nobody maps half of it.
void MakeFile(const std::string& path) {
    const std::string fresh = path + ".new." + std::to_string(getpid());
    unlink(fresh.c_str());
    const FileHandle file(
        open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kConfigMode));
    if (file.get() < 0) {
        return;
    }
    DbgLogCfg* const config =
        ftruncate(file.get(), static_cast<off_t>(sizeof(DbgLogCfg))) == 0 ? Map(file.get()) : nullptr;
    if (config != nullptr) {
        std::for_each(std::begin(config->level), std::end(config->level),
                      [](auto& level) { level = kDefaultLogLevel; });
        munmap(config, sizeof(DbgLogCfg));
        struct stat facts {};
        const bool otherLayout =
            stat(path.c_str(), &facts) == 0 && facts.st_size != static_cast<off_t>(sizeof(DbgLogCfg));
        // link() leaves alone what another process has made meanwhile.
        const int placed =
            otherLayout ? rename(fresh.c_str(), path.c_str()) : link(fresh.c_str(), path.c_str());
        if (placed != 0 && errno != EEXIST) {
            PV_LOG_LINE(kSource, "Failed to make %s: %s\n", path.c_str(), std::strerror(errno));
        }
    }
    unlink(fresh.c_str());
}

bool IsAlive(pid_t pid) { return kill(pid, 0) == 0 || errno != ESRCH; }

// The row of `pid`, else one that a dead process left, else a new one; null when there is no room.
DbgLogPidLevel* RowFor(DbgLogCfg& config, pid_t pid) {
    DbgLogPidLevel* const begin = static_cast<DbgLogPidLevel*>(config.pidLevel);
    DbgLogPidLevel* const end = begin + std::min<int>(config.pidCount, DbgLogCfg::kMaxPids);
    DbgLogPidLevel* row = std::find_if(begin, end, [pid](const auto& used) { return used.pid == pid; });
    if (row == end) {
        row = std::find_if(begin, end, [](const auto& used) { return !IsAlive(used.pid); });
    }
    return row != begin + DbgLogCfg::kMaxPids ? row : nullptr;
}

}  // namespace

std::string LogConfigPath() { return KORV::GetConfiguration().runDir + "/service/log.cfg"; }

bool OpenLogConfig(const std::string& path) {
    if (g_pDbgLogCfg != nullptr) {
        return true;
    }
    DbgLogCfg* config = MapExisting(path);
    if (config == nullptr) {
        MakeFile(path);
        config = MapExisting(path);
    }
    if (config == nullptr) {
        PV_LOG_LINE(kSource, "Failed to map %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    g_pDbgLogCfg = config;
    MappedPath() = path;
    return true;
}

bool SetLogLevel(LOG_CATEG category, LOG_LEVEL level) {
    if (g_pDbgLogCfg == nullptr || category < 0 || category >= LOG_CATEG_COUNT) {
        return false;
    }
    g_pDbgLogCfg->level[category] = level;
    return true;
}

bool SetLogLevelOfProcess(pid_t pid, LOG_LEVEL level) {
    if (g_pDbgLogCfg == nullptr) {
        return false;
    }
    // Two processes that add a row at once must not take the same one.
    const FileHandle lock(open(MappedPath().c_str(), O_RDONLY | O_CLOEXEC));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX) != 0) {
        PV_LOG_LINE(kSource, "Failed to lock the log configuration: %s\n", std::strerror(errno));
        return false;
    }
    DbgLogPidLevel* const row = RowFor(*g_pDbgLogCfg, pid);
    if (row == nullptr) {
        return false;
    }
    // The level first: a reader that sees the process id must not see another process's level.
    row->level = level;
    row->pid = pid;
    const auto used = static_cast<int>(row - static_cast<DbgLogPidLevel*>(g_pDbgLogCfg->pidLevel)) + 1;
    g_pDbgLogCfg->pidCount = std::max<int>(g_pDbgLogCfg->pidCount, used);
    return true;
}

}  // namespace pavane
