#include "korv/system/server_probe.h"

#include <netdb.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <vector>

#include <sys/socket.h>

#include "korv/system/file_descriptor.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience(10);

bool IsRefusal(int error) { return error == ECONNREFUSED || error == ECONNRESET; }

// Connections to all addresses of a server, made at once: the first that stands decides, and one that gets no
// answer holds up no other.
class Attempts {
public:
    void Start(const addrinfo& address) {
        FileDescriptor connection(socket(
            address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol));
        const bool isStarted =
            connection &&
            (connect(connection.Get(), address.ai_addr, address.ai_addrlen) == 0 || errno == EINPROGRESS);
        if (!isStarted) {
            m_isRefused = m_isRefused || IsRefusal(errno);
            return;
        }
        m_waiting.push_back({connection.Get(), POLLOUT, 0});
        m_connections.push_back(std::move(connection));
    }

    MountFailure Wait(Clock::time_point deadline) {
        while (!m_waiting.empty()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            const int ready =
                poll(m_waiting.data(), m_waiting.size(), static_cast<int>(std::max<long>(left.count(), 0)));
            if (ready == 0 || (ready < 0 && errno != EINTR)) {
                break;
            }
            if (ready > 0 && TakeAnswers()) {
                return MountFailure::kNone;
            }
        }
        return m_isRefused ? MountFailure::kRefused : MountFailure::kNoAnswer;
    }

private:
    // True when a connection stands; those that failed are no longer waited for.
    bool TakeAnswers() {
        bool isConnected = false;
        std::erase_if(m_waiting, [&](const pollfd& each) {
            if (each.revents == 0) {
                return false;
            }
            int error = 0;
            socklen_t size = sizeof error;
            getsockopt(each.fd, SOL_SOCKET, SO_ERROR, &error, &size);
            isConnected = isConnected || error == 0;
            m_isRefused = m_isRefused || IsRefusal(error);
            return true;
        });
        return isConnected;
    }

    std::vector<FileDescriptor> m_connections;
    std::vector<pollfd> m_waiting;
    bool m_isRefused = false;
};

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
    Attempts attempts;
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        attempts.Start(*address);
    }
    return attempts.Wait(Clock::now() + kPatience);
}

}  // namespace korv
