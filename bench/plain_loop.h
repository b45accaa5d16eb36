#pragma once

#include <string>

#include <curl/curl.h>

#include "bench/fake_peers.h"

// What a send costs at least: libcurl with connections that it keeps, one server after the other. What goes
// over the wire has the size and the headers of a relayed request, but was made beforehand; the answer is
// thrown away.
class PlainLoop {
public:
    // `peers` must outlive it; the first round connects.
    PlainLoop(const FakePeers& peers, const std::string& body);
    ~PlainLoop();
    PlainLoop(const PlainLoop&) = delete;
    PlainLoop& operator=(const PlainLoop&) = delete;

    // One round. Throws std::runtime_error when a server can't be reached.
    void Send();

private:
    const FakePeers& m_peers;
    std::string m_body;
    CURL* m_handle = curl_easy_init();
    curl_slist* m_headers = nullptr;
};
