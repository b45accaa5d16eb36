#include "korv/framework/log.h"

#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <sys/stat.h>

namespace korv {
namespace {

constexpr mode_t kLogMode = 0640;
int g_logFd = STDERR_FILENO;

std::string TimeText() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S%z", &parts);
    return {text.data(), length};
}

}  // namespace

void OpenLog(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLogMode);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    }
    const group* const adm = getgrnam("adm");
    if (adm != nullptr && fchown(fd, 0, adm->gr_gid) != 0) {
        LogLine("the log could not be given to the group adm");
    }
    g_logFd = fd;
}

void LogLine(const std::string& text) noexcept {
    try {
        std::string line = TimeText() + " [" + std::to_string(getpid()) + "] " + text;
        for (char& c : line) {
            c = static_cast<unsigned char>(c) < ' ' || c == '\x7f' ? '?' : c;
        }
        line += '\n';
        // One write a line, so that lines of several processes do not mix. A full disk must not stop a
        // request.
        const ssize_t written = write(g_logFd, line.data(), line.size());
        static_cast<void>(written);
    } catch (const std::exception&) {
        static constexpr char kLost[] = "korv: a log line was lost\n";
        const ssize_t written = write(g_logFd, kLost, sizeof kLost - 1);
        static_cast<void>(written);
    }
}

}  // namespace korv
