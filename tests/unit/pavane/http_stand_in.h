#pragma once

#include <string>

#include <sys/types.h>

// A tiny HTTP server in a process of its own that gives every request the same answer and keeps what it was
// sent. Loopback or a unix socket only; gone with the object.
class HttpStandIn {
public:
    // `answer` is the whole answer, headers included; an empty one means: accept, read, and never answer.
    // `unixSocket`: path to listen at; empty = a port of 127.0.0.1.
    explicit HttpStandIn(const std::string& answer, const std::string& unixSocket = "");
    ~HttpStandIn();
    HttpStandIn(const HttpStandIn&) = delete;
    HttpStandIn& operator=(const HttpStandIn&) = delete;

    std::string Address() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    // All that was received so far.
    std::string Received() const;

private:
    std::string m_record;
    int m_port = 0;
    pid_t m_pid = -1;
};

// A complete answer with status 200 and this body.
std::string OkAnswer(const std::string& body);
