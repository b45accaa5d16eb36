#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pavane {

// One HTTP POST.
struct HttpPost {
    std::string url;
    std::string unixSocket;  // path; empty = TCP
    std::string body;
    std::vector<std::string> headers;  // "Name: value"; values may be secret
    std::string pinnedKey;             // "sha256//...": the only key that a TLS server may have
    long connectTimeout_ms = 0;
    long totalTimeout_ms = 0;      // connecting included
    std::size_t replyLimit = 0;    // bytes; a longer reply is a failure
    void (*progress)() = nullptr;  // called while waiting; may be null
};

// What became of it.
struct HttpReply {
    bool ok = false;  // an answer arrived completely, whatever its status
    bool neverConnected = false;
    long status = 0;
    std::string body;
    std::string failure;      // what went wrong, fit for the log
    bool keyDiffers = false;  // the server showed another key than the pinned one; nothing was sent
    bool timedOut = false;
    std::int64_t date_s = 0;    // the server's clock as it says, unix seconds; 0 = it does not say
    std::string sessionCookie;  // "name=value" of the first cookie that it set; a secret
    std::string localIp;        // this side of the connection
};

// Sends it over one of this process's kept connections, which are opened anew after a fork. Follows no
// redirect and uses no proxy. Blocks for at most totalTimeout_ms. https without a pinned key is refused.
HttpReply SendHttpPost(const HttpPost& post);

}  // namespace pavane
