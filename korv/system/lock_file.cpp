#include "korv/system/lock_file.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <thread>

#include <sys/file.h>
#include <sys/stat.h>

#include "platform/korv/configuration.h"

#include "include/run_as_scope.h"

namespace korv {

FileDescriptor TakeLock(const std::string& folder, const std::string& name,
                        std::chrono::milliseconds patience) {
    constexpr std::chrono::milliseconds kPause(20);
    const std::string path = KORV::GetConfiguration().runDir + "/" + folder;
    const RunAsScope root = IF_RUN_AS;
    std::filesystem::create_directories(path);
    FileDescriptor lock(
        open((path + "/" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!lock) {
        throw std::system_error(errno, std::generic_category(), "cannot open a lock of " + folder);
    }
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "cannot take a lock of " + folder);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return FileDescriptor();
        }
        std::this_thread::sleep_for(kPause);
    }
    return lock;
}

}  // namespace korv
