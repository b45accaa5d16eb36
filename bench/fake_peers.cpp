#include "bench/fake_peers.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace {

constexpr int kBacklog = 128;
constexpr int kDecimal = 10;
constexpr const char* kMadeAnswer =
    R"({"success":true,"data":{"id":7,"fsType":1,"totalSize":4000000,"blMigrating":false,"encType":0}})";

int Listen(int& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = sizeof(address);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, kBacklog) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("cannot listen at loopback");
    }
    port = ntohs(address.sin_port);
    return listener;
}

// The text under `key` in a request written without blanks.
std::string TextOf(const std::string& body, const std::string& key) {
    const std::string start = "\"" + key + "\":\"";
    const std::size_t begin = body.find(start);
    if (begin == std::string::npos) {
        return "";
    }
    const std::size_t text = begin + start.size();
    return body.substr(text, body.find('"', text) - text);
}

class Server {
public:
    Server(std::vector<int> listeners, std::string version, unsigned work_us)
        : m_poll(epoll_create1(EPOLL_CLOEXEC)),
          m_listeners(std::move(listeners)),
          m_version(std::move(version)),
          m_work_us(work_us) {
        for (const int listener : m_listeners) {
            Watch(listener);
        }
    }

    [[noreturn]] void Run() {
        constexpr int kEvents = 64;
        std::array<epoll_event, kEvents> events{};
        while (true) {
            const int count = epoll_wait(m_poll, events.data(), kEvents, -1);
            for (int i = 0; i < count; ++i) {
                const int ready = events[static_cast<std::size_t>(i)].data.fd;
                if (ready <= m_listeners.back()) {
                    Accept(ready);
                } else {
                    Read(ready);
                }
            }
        }
    }

private:
    void Watch(int descriptor) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        epoll_ctl(m_poll, EPOLL_CTL_ADD, descriptor, &event);
    }

    void Accept(int listener) {
        const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int on = 1;
        setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        Watch(connection);
    }

    void Read(int connection) {
        constexpr std::size_t kPart = 65536;
        std::array<char, kPart> part{};
        const ssize_t length = read(connection, part.data(), part.size());
        if (length <= 0) {
            m_received.erase(connection);
            close(connection);
            return;
        }
        std::string& request = m_received[connection].append(part.data(), static_cast<std::size_t>(length));
        constexpr std::size_t kBlankLine = 4;
        const std::size_t header = request.find("\r\n\r\n");
        const std::size_t announced = request.find("Content-Length: ");
        constexpr std::size_t kAnnouncement = 16;
        if (header != std::string::npos && announced < header &&
            request.size() >=
                header + kBlankLine +
                    std::strtoul(request.c_str() + announced + kAnnouncement, nullptr, kDecimal)) {
            Answer(connection, request.substr(header));
            request.clear();
        }
    }

    void Answer(int connection, const std::string& body) const {
        const std::string data = TextOf(body, "method") != "ping"
                                     ? kMadeAnswer
                                     : R"({"success":true,"data":{"name":"fake","serial":")" +
                                           TextOf(body, "recSerialNum") + R"(","version":")" + m_version +
                                           "\"}}";
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                                   std::to_string(data.size()) + "\r\n\r\n" + data;
        if (m_work_us > 0) {
            usleep(m_work_us);
        }
        if (write(connection, answer.data(), answer.size()) < 0) {
            close(connection);
        }
    }

    int m_poll;
    std::vector<int> m_listeners;  // opened in this order, before any connection
    std::string m_version;
    unsigned m_work_us;
    std::map<int, std::string> m_received;
};

}  // namespace

FakePeers::FakePeers(int count, const std::string& version, unsigned work_us) {
    std::vector<int> listeners;
    listeners.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        listeners.push_back(Listen(m_ports.emplace_back(0)));
    }
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::signal(SIGPIPE, SIG_IGN);
        Server(listeners, version, work_us).Run();
    }
    for (const int listener : listeners) {
        close(listener);
    }
}

FakePeers::~FakePeers() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}
