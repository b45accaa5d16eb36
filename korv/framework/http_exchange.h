#pragma once

#include <string>
#include <utility>
#include <vector>

namespace korv {

// Who a worker serves: clients, or paired servers only.
enum class Pool { kPublic, kPeer };

inline constexpr long kMaxBodyBytes = 1L << 20;     // a JSON request
inline constexpr long kMaxUploadBytes = 10L << 20;  // a request with files

struct HttpRequest {
    std::string target;  // path of the request, e.g. "/webapi"
    std::string method;
    std::string contentType;
    std::string cookies;
    std::string csrf;  // header X-Korv-Csrf
    std::string remoteIp;
    std::string body;
    bool isTooLarge = false;  // the body was over the limit and has not been read
};

struct HttpAnswer {
    int status = 0;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

// The largest body that a request of this content type may have.
long BodyLimit(const std::string& contentType);

// Answers one request. Never throws; what goes wrong is logged and answered as an internal error.
HttpAnswer Serve(Pool pool, const HttpRequest& request);

}  // namespace korv
