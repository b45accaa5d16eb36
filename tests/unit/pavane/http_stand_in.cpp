#include "tests/unit/pavane/http_stand_in.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "tests/unit/pavane/test_node.h"

namespace {

constexpr int kBacklog = 16;

int ListenUnix(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(static_cast<char*>(address.sun_path), path.c_str(), sizeof(address.sun_path) - 1);
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, kBacklog) != 0) {
        throw std::runtime_error("cannot listen at a unix socket");
    }
    return fd;
}

int ListenLoopback(int& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = sizeof(address);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, kBacklog) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("cannot listen at loopback");
    }
    port = ntohs(address.sin_port);
    return fd;
}

// Reads until the body that the header announces is there.
void ReadRequest(int connection, int record) {
    std::string request;
    std::array<char, 65536> part{};
    while (true) {
        const std::size_t header = request.find("\r\n\r\n");
        const std::size_t length = request.find("Content-Length: ");
        if (header != std::string::npos && length != std::string::npos &&
            request.size() >= header + 4 + std::strtoul(request.c_str() + length + 16, nullptr, 10)) {
            break;
        }
        const ssize_t got = read(connection, part.data(), part.size());
        if (got <= 0) {
            break;
        }
        request.append(part.data(), static_cast<std::size_t>(got));
    }
    if (write(record, request.data(), request.size()) < 0) {
        _exit(1);
    }
}

[[noreturn]] void Serve(int listener, const std::string& answer, const std::string& recordPath) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGPIPE, SIG_IGN);
    const int record = open(recordPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    while (true) {
        const int connection = accept(listener, nullptr, nullptr);
        ReadRequest(connection, record);
        if (answer.empty()) {
            pause();
        }
        std::size_t sent = 0;
        while (sent < answer.size()) {
            const ssize_t wrote = write(connection, answer.data() + sent, answer.size() - sent);
            if (wrote <= 0) {
                break;
            }
            sent += static_cast<std::size_t>(wrote);
        }
        close(connection);
    }
}

}  // namespace

HttpStandIn::HttpStandIn(const std::string& answer, const std::string& unixSocket) {
    static int count = 0;
    m_record = TestNode::Instance().Folder() + "/http" + std::to_string(++count);
    const int listener = unixSocket.empty() ? ListenLoopback(m_port) : ListenUnix(unixSocket);
    m_pid = fork();
    if (m_pid == 0) {
        Serve(listener, answer, m_record);
    }
    close(listener);
}

HttpStandIn::~HttpStandIn() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

std::string HttpStandIn::Received() const { return ReadFile(m_record); }

std::string OkAnswer(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}
