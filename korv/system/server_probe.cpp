#include "korv/system/server_probe.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>

#include <sys/socket.h>

#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience(10);

// 0, or the error of the connection.
int Connect(const addrinfo& address, Clock::time_point deadline) {
    const FileDescriptor connection(
        socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol));
    if (!connection) {
        return errno;
    }
    if (connect(connection.Get(), address.ai_addr, address.ai_addrlen) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waiting{connection.Get(), POLLOUT, 0};
    if (poll(&waiting, 1, static_cast<int>(std::max<long>(left.count(), 0))) <= 0) {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(connection.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

}  // namespace

MountFailure ProbeServer(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return MountFailure::kUnknownHost;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, freeaddrinfo);
    const Clock::time_point deadline = Clock::now() + kPatience;
    bool isRefused = false;
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        const int error = Connect(*address, deadline);
        if (error == 0) {
            return MountFailure::kNone;
        }
        isRefused = isRefused || error == ECONNREFUSED || error == ECONNRESET;
    }
    return isRefused ? MountFailure::kRefused : MountFailure::kNoAnswer;
}

}  // namespace korv
