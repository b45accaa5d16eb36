#include "bench/plain_loop.h"

#include <stdexcept>

namespace {

std::size_t Ignore(char* /*data*/, std::size_t size, std::size_t count, void* /*context*/) {
    return size * count;
}

}  // namespace

PlainLoop::PlainLoop(const FakePeers& peers, const std::string& body) : m_peers(peers), m_body(body) {
    constexpr long kKeptConnections = 128;
    for (const char* header :
         {"Content-Type: application/json", "Expect:", "Cookie: timestamp=1790000000.0123456789abcdef"}) {
        m_headers = curl_slist_append(m_headers, header);
    }
    curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
    curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &Ignore);
    curl_easy_setopt(m_handle, CURLOPT_POSTFIELDS, m_body.c_str());
    curl_easy_setopt(m_handle, CURLOPT_MAXCONNECTS, kKeptConnections);
    curl_easy_setopt(m_handle, CURLOPT_NOSIGNAL, 1L);
}

PlainLoop::~PlainLoop() {
    curl_easy_cleanup(m_handle);
    curl_slist_free_all(m_headers);
}

void PlainLoop::Send() {
    for (std::size_t i = 0; i < m_peers.Ports().size(); ++i) {
        const std::string url = m_peers.Address(static_cast<int>(i)) + "/peer";
        curl_easy_setopt(m_handle, CURLOPT_URL, url.c_str());
        if (curl_easy_perform(m_handle) != CURLE_OK) {
            throw std::runtime_error("the plain loop could not send");
        }
    }
}
