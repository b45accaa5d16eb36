#include "korv/system/cipher_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "include/run_as_scope.h"
#include "korv/system/child_process.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/mount_table.h"

namespace korv {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTool = "/usr/bin/gocryptfs";
constexpr const char* kFuseDevice = "/dev/fuse";
constexpr const char* kFsType = "fuse.gocryptfs";
constexpr const char* kHiddenFolder = ".korv";
constexpr const char* kCipherFolders = "cipher";
constexpr const char* kToolsConfiguration = "gocryptfs.conf";
constexpr const char* kToolsRootName = "gocryptfs.diriv";
constexpr std::size_t kLongestPassword = 1024;
constexpr mode_t kPrivateMode = S_IRWXU;
// Deriving the key from the password takes a good part of a second, on a busy or small machine much more.
constexpr std::chrono::seconds kToolDeadline(60);
constexpr std::chrono::seconds kProbeDeadline(5);
constexpr std::chrono::seconds kUnmountDeadline(30);

// gocryptfs's exit statuses.
enum ToolExit {
    kToolDone = 0,
    kToolCipherDir = 6,
    kToolLoadConf = 8,
    kToolOther = 11,  // says it for a configuration that it can't read
    kToolPasswordIncorrect = 12,
    kToolPasswordEmpty = 22,
    kToolOpenConf = 23,
};

CipherEnd RunTool(const std::vector<std::string>& arguments, std::string input, int kept = -1) {
    if (!CipherFolder::IsPossible()) {
        return CipherEnd::kToolMissing;
    }
    const int status = RunProgramWithInput(kTool, arguments, input, kToolDeadline, kept);
    explicit_bzero(input.data(), input.size());
    switch (status) {
        case kToolDone:
            return CipherEnd::kDone;
        case kToolPasswordIncorrect:
            return CipherEnd::kWrongPassword;
        case kToolPasswordEmpty:
            return CipherEnd::kBadPassword;
        case kToolLoadConf:
        case kToolOther:
        case kToolOpenConf:
            return CipherEnd::kNotCipher;
        case kToolCipherDir:
            return CipherEnd::kNoFolder;
        case -1:
            return CipherEnd::kTimeout;
        default:
            return CipherEnd::kFailed;
    }
}

// kDone for an empty folder.
CipherEnd LookForEmpty(const std::string& path) {
    std::error_code error;
    if (!fs::is_directory(fs::symlink_status(path, error))) {
        return CipherEnd::kNoFolder;
    }
    const bool isEmpty = fs::is_empty(path, error);
    return error ? CipherEnd::kFailed : isEmpty ? CipherEnd::kDone : CipherEnd::kNotEmpty;
}

// Whether one file more, such as the tool's configuration, fits beside `path`.
bool IsFull(const std::string& path) {
    const std::string probe = path + ".probe";
    const int file = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR);
    constexpr off_t kProbe_bytes = 65536;
    const int error = file < 0 ? errno : posix_fallocate(file, 0, kProbe_bytes);
    if (file >= 0) {
        close(file);
        unlink(probe.c_str());
    }
    return error == ENOSPC || error == EDQUOT;
}

bool MakePrivateFolders(const fs::path& path) {
    if (path.has_parent_path() && !fs::exists(path.parent_path()) &&
        !MakePrivateFolders(path.parent_path())) {
        return false;
    }
    return mkdir(path.c_str(), kPrivateMode) == 0 || errno == EEXIST;
}

// The two files that the tool makes; no others can be in a folder that was empty before.
void RemoveInit(const std::string& path) {
    unlink((path + "/" + kToolsConfiguration).c_str());
    unlink((path + "/" + kToolsConfiguration + ".tmp").c_str());
    unlink((path + "/" + kToolsRootName).c_str());
    rmdir(path.c_str());
}

bool Sync(const std::string& path) {
    const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool isDone = folder >= 0 && syncfs(folder) == 0;
    if (folder >= 0) {
        close(folder);
    }
    return isDone;
}

}  // namespace

std::string CipherFolder::PathFor(const std::string& volume, const std::string& token) {
    return volume + "/" + kHiddenFolder + "/" + kCipherFolders + "/" + token;
}

std::string CipherFolder::PathBehind(const std::string& mountPath) {
    const auto along = MountsAlong(mountPath);
    if (along.empty() || along.back()->mountPoint != mountPath || along.back()->fsType != kFsType) {
        return "";
    }
    // Anybody can mount one and call its source what they like; into this folder only root can look.
    const std::string folder = PathFor(fs::path(mountPath).parent_path(), "");
    const std::string& source = along.back()->source;
    const bool isOurs = source.size() > folder.size() && source.compare(0, folder.size(), folder) == 0 &&
                        source.find('/', folder.size()) == std::string::npos;
    return isOurs ? source : "";
}

bool CipherFolder::IsPossible() { return access(kTool, X_OK) == 0 && access(kFuseDevice, F_OK) == 0; }

bool CipherFolder::IsPassword(const std::string& password) {
    return !password.empty() && password.size() <= kLongestPassword &&
           password.find_first_of(std::string_view("\n\r\0", 3)) == std::string::npos;
}

CipherFolder::CipherFolder(std::string cipherPath, std::string mountPath)
    : m_cipherPath(std::move(cipherPath)), m_mountPath(std::move(mountPath)) {}

CipherEnd CipherFolder::Init(const std::string& password) const {
    const RunAsScope root = IF_RUN_AS;
    if (!IsPassword(password)) {
        return CipherEnd::kBadPassword;
    }
    if (!root || !MakePrivateFolders(m_cipherPath)) {
        return errno == ENOSPC || errno == EDQUOT ? CipherEnd::kNoSpace : CipherEnd::kFailed;
    }
    const CipherEnd place = LookForEmpty(m_cipherPath);
    if (place != CipherEnd::kDone) {
        return place;
    }
    CipherEnd end = RunTool({"-init", "-q", "-nosyslog", "--", m_cipherPath}, password + "\n");
    if (end == CipherEnd::kDone && !Sync(m_cipherPath)) {
        end = CipherEnd::kFailed;
    }
    if (end != CipherEnd::kDone) {
        RemoveInit(m_cipherPath);
        end = IsFull(m_cipherPath) ? CipherEnd::kNoSpace : end;
    }
    return end;
}

CipherEnd CipherFolder::Mount(const std::string& password, CipherUse use) const {
    const RunAsScope root = IF_RUN_AS;
    if (!IsPassword(password)) {
        return CipherEnd::kBadPassword;
    }
    if (IsMounted()) {
        return CipherEnd::kMounted;
    }
    if (!fs::exists(m_cipherPath + "/" + kToolsRootName)) {
        return fs::exists(m_cipherPath) ? CipherEnd::kNotCipher : CipherEnd::kNoFolder;
    }
    const FileDescriptor files(open(m_cipherPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!files) {
        return CipherEnd::kNoFolder;
    }
    CipherEnd end = use == CipherUse::kProve ? CipherEnd::kDone : WaitForTurn(files.Get());
    if (end == CipherEnd::kDone) {
        end = LookForEmpty(m_mountPath);
    }
    if (end != CipherEnd::kDone) {
        return end;
    }
    return RunTool({"-q", "-nosyslog", "-acl", "-allow_other", "--", m_cipherPath, m_mountPath},
                   password + "\n", files.Get());
}

CipherEnd CipherFolder::WaitForTurn(int files) const {
    constexpr useconds_t kPause_us = 20'000;
    const auto deadline = std::chrono::steady_clock::now() + kToolDeadline;
    while (flock(files, LOCK_EX | LOCK_NB) != 0) {
        if (IsMounted()) {
            return CipherEnd::kMounted;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return CipherEnd::kFailed;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return CipherEnd::kTimeout;
        }
        usleep(kPause_us);
    }
    return IsMounted() ? CipherEnd::kMounted : CipherEnd::kDone;
}

CipherEnd CipherFolder::Unmount(std::chrono::milliseconds patience, bool isLazy) const {
    const RunAsScope root = IF_RUN_AS;
    if (!IsMounted()) {
        return CipherEnd::kNotMounted;
    }
    const auto end = std::chrono::steady_clock::now() + patience;
    const auto unmount = [this](int flags) {
        return RunInChild(
            [this, flags] { return umount2(m_mountPath.c_str(), flags | UMOUNT_NOFOLLOW) == 0 ? 0 : errno; },
            kUnmountDeadline);
    };
    while (true) {
        const auto error = unmount(0);
        if (error && *error != EBUSY) {
            return *error == 0 ? CipherEnd::kDone : CipherEnd::kFailed;
        }
        if (!error || std::chrono::steady_clock::now() >= end) {
            if (!isLazy) {
                return error ? CipherEnd::kBusy : CipherEnd::kTimeout;
            }
            return unmount(MNT_DETACH) == 0 ? CipherEnd::kDone : CipherEnd::kFailed;
        }
        constexpr useconds_t kPause_us = 20'000;
        usleep(kPause_us);
    }
}

CipherEnd CipherFolder::ChangePassword(const std::string& oldPassword, const std::string& newPassword) const {
    const RunAsScope root = IF_RUN_AS;
    if (!IsPassword(oldPassword) || !IsPassword(newPassword)) {
        return CipherEnd::kBadPassword;
    }
    if (!fs::exists(m_cipherPath + "/" + kToolsConfiguration)) {
        return fs::exists(m_cipherPath) ? CipherEnd::kNotCipher : CipherEnd::kNoFolder;
    }
    const CipherEnd end =
        RunTool({"-passwd", "-q", "-nosyslog", "--", m_cipherPath}, oldPassword + "\n" + newPassword + "\n");
    if (end == CipherEnd::kDone) {
        return Sync(m_cipherPath) ? end : CipherEnd::kFailed;
    }
    return end == CipherEnd::kFailed && IsFull(m_cipherPath) ? CipherEnd::kNoSpace : end;
}

CipherState CipherFolder::State() const {
    const RunAsScope root = IF_RUN_AS;
    if (IsMounted()) {
        const auto error = RunInChild(
            [this] {
                struct stat status {};
                return stat(m_mountPath.c_str(), &status) == 0 ? 0 : errno;
            },
            kProbeDeadline);
        return error == 0 ? CipherState::kUnlocked : CipherState::kBroken;
    }
    std::error_code error;
    return fs::exists(m_cipherPath + "/" + kToolsConfiguration, error) ? CipherState::kLocked
                                                                       : CipherState::kAbsent;
}

// The last mount at the path is the one that is seen.
bool CipherFolder::IsComplete() const {
    const RunAsScope root = IF_RUN_AS;
    std::error_code error;
    return fs::exists(m_cipherPath + "/" + kToolsConfiguration, error) &&
           fs::exists(m_cipherPath + "/" + kToolsRootName, error);
}

std::vector<std::string> CipherFolder::MountPoints() {
    std::vector<std::string> points;
    for (const korv::Mount& mount : ListMounts()) {
        if (mount.fsType == kFsType) {
            points.push_back(mount.mountPoint);
        }
    }
    std::sort(points.begin(), points.end());
    return points;
}

bool CipherFolder::IsMounted() const {
    const std::vector<korv::Mount> mounts = ReadMounts();
    const auto last = std::find_if(mounts.rbegin(), mounts.rend(), [this](const korv::Mount& mount) {
        return mount.mountPoint == m_mountPath;
    });
    return last != mounts.rend() && last->fsType == kFsType && last->source == m_cipherPath;
}

}  // namespace korv
