#include "korvd/listening_socket.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

constexpr int kBacklog = 4096;  // the kernel lowers it to net.core.somaxconn
constexpr mode_t kOwnerOnly = 0600;

[[noreturn]] void Fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), "cannot listen on " + path);
}

}  // namespace

korv::FileDescriptor ListenOn(const std::string& path, const korv::UserIds& owner) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        Fail(path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    korv::FileDescriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listening || (unlink(path.c_str()) != 0 && errno != ENOENT) ||
        bind(listening.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), kOwnerOnly) != 0 || chown(path.c_str(), owner.uid, owner.gid) != 0 ||
        listen(listening.Get(), kBacklog) != 0) {
        Fail(path);
    }
    return listening;
}
