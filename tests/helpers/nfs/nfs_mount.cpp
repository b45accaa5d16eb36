// Stands in for mount.nfs where the kernel has no NFS: mounts through FUSE, speaking NFS version 3 over TCP
// with a real server. Called as mount(8) calls helpers: mount.nfs SOURCE TARGET [-n] [-v] -o OPTIONS. Says
// what went wrong in the words of mount.nfs. For private mount namespaces of tests only.

#define FUSE_USE_VERSION 31

#include <fcntl.h>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/helpers/nfs/nfs_files.h"
#include "tests/helpers/nfs/nfs_session.h"

namespace {

constexpr int kMountFailed = 32;
constexpr int kWrongUse = 1;
constexpr int kTimeout_s = 5;

using Options = std::map<std::string, std::string>;

class MountError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

Options ReadOptions(const std::vector<std::string>& arguments) {
    Options options;
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        std::istringstream texts(arguments[i] == "-o" ? arguments[i + 1] : "");
        for (std::string text; std::getline(texts, text, ',');) {
            const auto equals = text.find('=');
            options[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
        }
    }
    return options;
}

int NumberOf(const Options& options, const char* name) {
    const auto found = options.find(name);
    return found == options.end() ? 0 : static_cast<int>(std::strtol(found->second.c_str(), nullptr, 10));
}

void CheckOptions(const Options& options) {
    static const std::set<std::string> known{"nosuid",    "nodev", "noexec", "vers",    "proto",   "port",
                                             "mountport", "rsize", "wsize",  "timeo",   "retrans", "actimeo",
                                             "nconnect",  "ro",    "rw",     "soft",    "hard",    "lock",
                                             "nolock",    "ac",    "noac",   "noatime", "sec",     "retry"};
    for (const auto& [name, value] : options) {
        if (!known.contains(name)) {
            throw MountError("an incorrect mount option was specified");
        }
        const bool isSpoken = (name != "vers" || value == "3") && (name != "proto" || value == "tcp") &&
                              (name != "sec" || value == "sys");
        if (!isSpoken) {
            throw MountError("requested NFS version or transport protocol is not supported");
        }
    }
}

NfsSession::Server ServerOf(const std::string& source, const Options& options) {
    NfsSession::Server server;
    const auto colon = source.find(":/");
    if (colon == std::string::npos) {
        throw MountError("remote share not in 'host:dir' format");
    }
    server.host = source.substr(0, colon);
    server.folder = source.substr(colon + 1);
    server.port = NumberOf(options, "port");
    server.mountPort = NumberOf(options, "mountport");
    server.timeout_s = kTimeout_s;
    server.isSoft = options.contains("soft");
    return server;
}

std::string WordsOf(const std::string& source, int result, const std::string& said) {
    switch (result) {
        case -EACCES:
        case -EPERM:
            return "access denied by server while mounting " + source;
        case -ENOENT:
            return "mounting " + source + " failed, reason given by server: No such file or directory";
        case -ESTALE:
            return "Stale file handle";
        case -EINTR:
        case -ETIMEDOUT:
            return "Connection timed out";
        default:
            return said;
    }
}

// Ends this process when the file system is gone, also while a call waits for a server that is silent.
void EndWithTheMount(int device) {
    std::thread([device] {
        pollfd gone{device, 0, 0};
        while (poll(&gone, 1, -1) <= 0 || (gone.revents & (POLLERR | POLLHUP)) == 0) {
        }
        _exit(EXIT_SUCCESS);
    }).detach();
}

bool BecomeDaemon() {
    const int nothing = open("/dev/null", O_RDWR);
    return nothing >= 0 && setsid() >= 0 && chdir("/") == 0 && dup2(nothing, STDIN_FILENO) >= 0 &&
           dup2(nothing, STDOUT_FILENO) >= 0 && dup2(nothing, STDERR_FILENO) >= 0;
}

std::string FuseOptions(const std::string& source, const Options& options) {
    std::string text = "allow_other,nosuid,nodev,noexec,subtype=nfs,fsname=";
    for (const char letter : source) {
        text += letter == '\\' ? "\\\\" : std::string(1, letter);
    }
    return text + (options.contains("ro") ? ",ro" : "");
}

// Returns in the first process only, once the folder is mounted; the second serves it.
void Mount(const std::string& source, const std::string& target, const Options& options,
           NfsSession& session) {
    std::string words;
    if (const int result = session.Connect(words); result != 0) {
        throw MountError(WordsOf(source, result, words));
    }
    const std::string text = FuseOptions(source, options);
    const std::vector<const char*> arguments{"mount.nfs", "-o", text.c_str()};
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(arguments.size()), const_cast<char**>(arguments.data()));
    fuse* const files = fuse_new(&args, &NfsOperations(session), sizeof(fuse_operations), nullptr);
    if (files == nullptr || fuse_mount(files, target.c_str()) != 0) {
        throw MountError("cannot mount through FUSE");
    }
    const pid_t server = fork();
    if (server != 0) {
        if (server < 0) {
            throw MountError(std::strerror(errno));
        }
        _exit(EXIT_SUCCESS);
    }
    if (!BecomeDaemon()) {
        _exit(EXIT_FAILURE);
    }
    EndWithTheMount(fuse_session_fd(fuse_get_session(files)));
    fuse_loop(files);
    _exit(EXIT_SUCCESS);
}

}  // namespace

int main(int count, char** words) {
    const std::vector<std::string> arguments(words, words + count);
    if (arguments.size() < 3) {
        std::fprintf(stderr, "usage: mount.nfs SOURCE TARGET [-n] [-v] -o OPTIONS\n");
        return kWrongUse;
    }
    close_range(STDERR_FILENO + 1, ~0U, 0);
    try {
        const Options options = ReadOptions(arguments);
        CheckOptions(options);
        NfsSession session(ServerOf(arguments[1], options));
        Mount(arguments[1], arguments[2], options, session);
    } catch (const MountError& error) {
        std::fprintf(stderr, "mount.nfs: %s\n", error.what());
        return kMountFailed;
    }
    return EXIT_SUCCESS;
}
