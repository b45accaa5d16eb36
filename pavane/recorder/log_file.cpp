#include "pavane/recorder/log_file.h"

#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <optional>
#include <utility>

#include <sys/stat.h>
#include <sys/types.h>

#include "include/run_as_scope.h"

namespace pavane {

namespace {

constexpr mode_t kLogMode = 0640;
constexpr const char* kLogGroup = "adm";

std::time_t Now_s() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

bool CanBecomeRoot() {
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    return getresuid(&real, &effective, &saved) == 0 && effective != 0 && saved == 0;
}

gid_t LogGroupId() {
    constexpr std::size_t kBuffer = 4096;
    char buffer[kBuffer];
    group entry{};
    group* found = nullptr;
    if (getgrnam_r(kLogGroup, &entry, static_cast<char*>(buffer), sizeof(buffer), &found) != 0 ||
        found == nullptr) {
        return 0;
    }
    return found->gr_gid;
}

// Mode and group are set on a new file only: an existing one keeps what its owner gave it.
void GiveToLogReaders(int fd) {
    const bool chownFailed = geteuid() == 0 && fchown(fd, 0, LogGroupId()) != 0;
    if (fchmod(fd, chownFailed ? kLogMode & ~static_cast<mode_t>(S_IRGRP) : kLogMode) != 0) {
        // The file keeps the mode that it was made with, which is not wider.
        return;
    }
}

}  // namespace

LogFile::LogFile(std::string path) : m_path(std::move(path)) {}

LogFile::~LogFile() { Close(); }

bool LogFile::Write(std::string_view entry) {
    const std::time_t now_s = Now_s();
    if (m_fd < 0 || now_s - m_checked_s >= kCheck_s) {
        // A process that runs with lowered ids opens the scope; any other has to do with the rights it has.
        std::optional<RunAsScope> root;
        if (CanBecomeRoot()) {
            root.emplace(__FILE_NAME__, __LINE__);
        }
        if (!IsStillInPlace()) {
            Close();
            Open();
        }
        m_checked_s = now_s;
    }
    return m_fd >= 0 && write(m_fd, entry.data(), entry.size()) == static_cast<ssize_t>(entry.size());
}

bool LogFile::IsStillInPlace() const {
    struct stat opened {};
    struct stat named {};
    return m_fd >= 0 && fstat(m_fd, &opened) == 0 && lstat(m_path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

void LogFile::Open() {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY;
    m_fd = open(m_path.c_str(), kFlags | O_CREAT | O_EXCL, kLogMode);
    if (m_fd >= 0) {
        GiveToLogReaders(m_fd);
        return;
    }
    m_fd = open(m_path.c_str(), kFlags);
}

void LogFile::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

}  // namespace pavane
