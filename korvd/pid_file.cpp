#include "korvd/pid_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <sys/stat.h>

namespace {

constexpr mode_t kReadable = 0644;
constexpr std::chrono::seconds kPatience(2);
constexpr std::chrono::milliseconds kPause(50);

// Locks of this kind belong to one process: children that live on don't keep them.
bool TryLock(int file) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(file, F_SETLK, &lock) == 0;
}

// False once the name was removed or leads to another file: a lock on this one then keeps nobody out.
bool IsStillNamed(int file, const std::string& path) {
    struct stat locked {};
    struct stat named {};
    return fstat(file, &locked) == 0 && lstat(path.c_str(), &named) == 0 && locked.st_dev == named.st_dev &&
           locked.st_ino == named.st_ino;
}

korv::FileDescriptor OpenPidFile(const std::string& path) {
    korv::FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kReadable));
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    }
    return file;
}

}  // namespace

PidFile::PidFile(std::string path) : m_path(std::move(path)), m_file(OpenPidFile(m_path)) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!TryLock(m_file.Get()) || !IsStillNamed(m_file.Get(), m_path)) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("korvd is running already, see " + m_path);
        }
        std::this_thread::sleep_for(kPause);
        m_file = OpenPidFile(m_path);
    }
    const std::string text = std::to_string(getpid()) + "\n";
    if (ftruncate(m_file.Get(), 0) != 0 ||
        write(m_file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + m_path);
    }
}

PidFile::~PidFile() { unlink(m_path.c_str()); }
