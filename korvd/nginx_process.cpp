#include "korvd/nginx_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

#include <sys/stat.h>

#include "korv/framework/log.h"
#include "korv/framework/service_user.h"
#include "korv/system/file_descriptor.h"
#include "korvd/nginx_config.h"

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr std::chrono::seconds kPatience(5);
constexpr std::chrono::milliseconds kPause(20);

std::string ConfigurationPath(const korv::Settings& settings) { return settings.node.runDir + "/nginx.conf"; }
std::string NotifyPath(const korv::Settings& settings) { return settings.node.runDir + "/notify.sock"; }

// True while the process `pid` runs nginx with this configuration; false for strangers and for the dead.
bool IsOurNginx(pid_t pid, const korv::Settings& settings) {
    std::ostringstream commandLine;
    commandLine << std::ifstream("/proc/" + std::to_string(pid) + "/cmdline").rdbuf();
    const std::string text = commandLine.str();
    return text.find("nginx") != std::string::npos &&
           text.find(ConfigurationPath(settings)) != std::string::npos;
}

// The nginx that the id file names; 0 when there is none.
pid_t OldNginx(const korv::Settings& settings) {
    pid_t pid = 0;
    std::ifstream(settings.node.runDir + "/nginx.pid") >> pid;
    return pid > 0 && IsOurNginx(pid, settings) ? pid : 0;
}

bool WaitUntilGone(pid_t pid, const korv::Settings& settings) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (IsOurNginx(pid, settings)) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

}  // namespace

void WriteNginxConfiguration(const korv::Settings& settings) {
    const std::string text = NginxConfiguration(settings);
    const std::string path = ConfigurationPath(settings);
    const korv::FileDescriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kOwnerOnly));
    if (!file || write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    }
}

void EndOldNginx(const korv::Settings& settings) {
    const pid_t pid = OldNginx(settings);
    if (pid != 0) {
        korv::LogLine("ending the nginx " + std::to_string(pid) + " that an earlier korvd left");
        kill(pid, SIGTERM);
        const bool isGone = WaitUntilGone(pid, settings);
        kill(-pid, SIGKILL);  // what is left of it: ExecNginx made it a process group
        if (!isGone && !WaitUntilGone(pid, settings)) {
            throw std::runtime_error("the nginx that an earlier korvd left does not end");
        }
    }
    // nginx refuses to listen on a socket that exists.
    if (unlink(NotifyPath(settings).c_str()) != 0 && errno != ENOENT) {
        throw std::system_error(errno, std::generic_category(), "cannot remove the old notification socket");
    }
}

void ExecNginx(const korv::Settings& settings) {
    // A Ctrl-C at the terminal must not end nginx before the workers have answered.
    setpgid(0, 0);
    const std::string configuration = ConfigurationPath(settings);
    const std::string errorLog = settings.node.logDir + "/nginx-error.log";
    execl(settings.nginx.binary.c_str(), settings.nginx.binary.c_str(), "-p", settings.node.runDir.c_str(),
          "-c", configuration.c_str(), "-e", errorLog.c_str(), static_cast<char*>(nullptr));
    korv::LogLine("cannot start " + settings.nginx.binary + ": " + std::system_category().message(errno));
}

bool TakeNotifySocket(const korv::Settings& settings) {
    const std::string path = NotifyPath(settings);
    struct stat status {};
    // nginx gives the mode right after it has bound the socket, and writes its id file after that.
    if (lstat(path.c_str(), &status) != 0 || OldNginx(settings) == 0) {
        return false;
    }
    const korv::UserIds owner = korv::IdsOf(settings.node.serviceUser);
    if (chmod(path.c_str(), kOwnerOnly) != 0 || lchown(path.c_str(), owner.uid, owner.gid) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot take the notification socket");
    }
    return true;
}
