#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// Recording servers that do nothing but answer: each has a port of 127.0.0.1 and keeps connections. All are
// one process, which goes with the object or with the process that made it.
class FakePeers {
public:
    // `version` is what they answer to a ping, with whatever serial they are asked by; each answer takes
    // `work_us` microseconds, in which none of them does anything else. Throws std::runtime_error.
    FakePeers(int count, const std::string& version, unsigned work_us);
    ~FakePeers();
    FakePeers(const FakePeers&) = delete;
    FakePeers& operator=(const FakePeers&) = delete;

    const std::vector<int>& Ports() const { return m_ports; }
    std::string Address(int index) const {
        return "http://127.0.0.1:" + std::to_string(m_ports[static_cast<std::size_t>(index)]);
    }

private:
    std::vector<int> m_ports;
    pid_t m_pid = -1;
};
