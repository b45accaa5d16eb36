#include "korv/system/samba_export.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include <sys/file.h>
#include <sys/stat.h>

#include "platform/korv/configuration.h"

#include "include/run_as_scope.h"
#include "korv/system/child_process.h"
#include "korv/system/file_descriptor.h"
#include "korv/system/samba_config.h"
#include "korv/system/share_store.h"

namespace korv {

namespace {

constexpr const char* kTestparm = "/usr/bin/testparm";
constexpr const char* kSmbcontrol = "/usr/bin/smbcontrol";
constexpr const char* kSmbdPidFile = "/run/samba/smbd.pid";
constexpr std::chrono::seconds kTestparmDeadline(5);
constexpr std::chrono::seconds kSmbcontrolDeadline(2);
constexpr mode_t kIncludeMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
constexpr mode_t kLockMode = S_IRUSR | S_IWUSR;

[[noreturn]] void Fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

std::string ReadFile(const std::string& path) {
    const RunAsScope root = IF_RUN_AS;
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Held until the result is destroyed.
FileDescriptor LockExport(const std::string& include) {
    const RunAsScope root = IF_RUN_AS;
    const int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    FileDescriptor lock(open((include + ".lock").c_str(), flags, kLockMode));
    if (!lock) {
        Fail("cannot open the lock of Samba's include file");
    }
    while (flock(lock.Get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            Fail("cannot lock Samba's include file");
        }
    }
    return lock;
}

void WriteFile(const std::string& path, const std::string& text) {
    const RunAsScope root = IF_RUN_AS;
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
    const FileDescriptor file(open(path.c_str(), flags, kIncludeMode));
    if (!file || fchmod(file.Get(), kIncludeMode) != 0) {
        Fail("cannot write Samba's include file");
    }
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(file.Get(), text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            Fail("cannot write Samba's include file");
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    }
    if (fsync(file.Get()) != 0) {
        Fail("cannot write Samba's include file to the disk");
    }
}

void Replace(const std::string& path, const std::string& by) {
    const RunAsScope root = IF_RUN_AS;
    if (rename(by.c_str(), path.c_str()) != 0) {
        Fail("cannot replace Samba's include file");
    }
    const std::string folder = std::filesystem::path(path).parent_path();
    const FileDescriptor parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent || fsync(parent.Get()) != 0) {
        Fail("cannot write the folder of Samba's include file to the disk");
    }
}

// Whatever a name or a description holds: the file must say to Samba what it was meant to say.
bool IsUnderstood(const std::string& path, const std::vector<ShareRow>& shares) {
    const ProgramEnd listing = RunProgram(kTestparm, {"-s", "--suppress-prompt", path}, kTestparmDeadline);
    std::vector<std::string> found = SectionsOfListing(listing.output);
    std::vector<std::string> meant;
    for (const ShareRow& share : shares) {
        if (IsSambaExportable(share)) {
            meant.push_back(share.name);
        }
    }
    std::sort(found.begin(), found.end());
    std::sort(meant.begin(), meant.end());
    return listing.exitCode == 0 && found == meant;
}

bool IsSmbdRunning() {
    constexpr int kDecimal = 10;
    const std::string text = ReadFile(kSmbdPidFile);
    const auto pid = static_cast<pid_t>(std::strtol(text.c_str(), nullptr, kDecimal));
    const RunAsScope root = IF_RUN_AS;
    return pid > 0 && kill(pid, 0) == 0;
}

std::string TellSmbd() {
    if (!IsSmbdRunning()) {
        return "";
    }
    const ProgramEnd end = RunProgram(kSmbcontrol, {"all", "reload-config"}, kSmbcontrolDeadline);
    // smbd looks for changed files by itself once in a while, so that this is no reason to take the file
    // back.
    return end.exitCode == 0 ? "" : "smbd was not told of changed shares";
}

std::string Export(const std::string& include) {
    const FileDescriptor lock = LockExport(include);
    const std::vector<ShareRow> shares = ListShares();
    const std::string text = SambaSections(shares);
    if (ReadFile(include) == text) {
        return "";
    }
    const std::string written = include + ".new";
    WriteFile(written, text);
    if (!IsUnderstood(written, shares)) {
        return "testparm does not accept " + written;
    }
    Replace(include, written);
    return TellSmbd();
}

}  // namespace

std::string ExportSharesToSamba() {
    const std::string& include = KORV::GetConfiguration().sambaInclude;
    if (include.empty() || access(kTestparm, X_OK) != 0) {
        return "";
    }
    try {
        return Export(include);
    } catch (const std::system_error& error) {
        return error.what();
    }
}

std::string DisconnectFromSambaShare(const std::string& name) {
    if (KORV::GetConfiguration().sambaInclude.empty() || !IsSmbdRunning()) {
        return "";
    }
    const ProgramEnd end = RunProgram(kSmbcontrol, {"smbd", "close-share", name}, kSmbcontrolDeadline);
    return end.exitCode == 0 ? "" : "smbd was not told to close a share";
}

}  // namespace korv
