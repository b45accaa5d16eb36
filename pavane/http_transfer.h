#pragma once

#include <string>

#include <curl/curl.h>

#include "pavane/http_post.h"

namespace pavane {

// One HTTP POST on a libcurl handle, for whoever runs the handle: curl_easy_perform, or a multi handle among
// others. Leaves nothing of the request behind in the handle but its connection.
class HttpTransfer {
public:
    // `handle` is borrowed and reset; `post` is kept.
    HttpTransfer(CURL* handle, HttpPost post);
    ~HttpTransfer();
    HttpTransfer(const HttpTransfer&) = delete;
    HttpTransfer& operator=(const HttpTransfer&) = delete;

    // What became of it, once libcurl has said `result`. To be called once.
    HttpReply Finish(CURLcode result);

private:
    static std::size_t ReceiveBody(char* data, std::size_t size, std::size_t count, void* transfer);
    void SetUp();

    CURL* m_handle;
    HttpPost m_post;
    curl_slist* m_headers = nullptr;
    HttpReply m_reply;
};

// Why nothing may be sent at all: https without a pinned key. Empty = it may.
std::string RefusalOf(const HttpPost& post);

}  // namespace pavane
