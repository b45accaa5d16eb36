#include "pavane/recorder/camera_migration.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <sys/stat.h>

#include "platform/korv/configuration.h"
#include "platform/pavane/camera.h"

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

std::string MigrationFolder() { return KORV::GetConfiguration().stateDir + "/migrations"; }

[[noreturn]] void Fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

// A line of the key-value format holds everything but the end of a line.
bool IsOneLine(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char byte) { return byte >= ' '; });
}

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : text) {
        quoted += character == '"' || character == '\\' ? "\\" : "";
        quoted += character;
    }
    return quoted + "\"";
}

void WriteFile(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kFileMode);
    if (fd < 0) {
        Fail("cannot make the file of a migration");
    }
    const bool isWritten =
        write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
    const int error = errno;
    close(fd);
    if (!isWritten) {
        unlink(path.c_str());
        errno = error;
        Fail("cannot write the file of a migration");
    }
}

// So that a name in it outlasts a loss of power.
void SyncFolder(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool isDone = fd >= 0 && fsync(fd) == 0;
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    if (!isDone) {
        errno = error;
        Fail("cannot write the folder of migrations to the disk");
    }
}

}  // namespace

std::string GetRecMigrateTmpFilePath(int camId) {
    return MigrationFolder() + "/camera-" + std::to_string(camId);
}

namespace pavane {

void StartCameraMigration(int camId, const std::string& sourceDir) {
    if (GetCamOwnerRvId(camId) != 0) {
        throw std::invalid_argument("no such camera of this server");
    }
    if (sourceDir.empty() || sourceDir.front() != '/' || !IsOneLine(sourceDir)) {
        throw std::invalid_argument("not the path of a recording folder");
    }
    if (mkdir(MigrationFolder().c_str(), kFolderMode) != 0 && errno != EEXIST) {
        Fail("cannot make the folder of migrations");
    }
    const std::string path = GetRecMigrateTmpFilePath(camId);
    const std::string fresh = path + ".new." + std::to_string(getpid());  // two may start it at once
    WriteFile(fresh, "srcDir=" + Quoted(sourceDir) + "\n");
    if (rename(fresh.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(fresh.c_str());
        errno = error;
        Fail("cannot place the file of a migration");
    }
    SyncFolder(MigrationFolder());
}

bool StopCameraMigration(int camId) {
    if (unlink(GetRecMigrateTmpFilePath(camId).c_str()) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        Fail("cannot remove the file of a migration");
    }
    return false;
}

}  // namespace pavane
