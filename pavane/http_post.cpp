#include "pavane/http_post.h"

#include <unistd.h>

#include <curl/curl.h>

#include "pavane/http_transfer.h"

namespace pavane {

namespace {

// The handle keeps connections open between requests. One that a parent opened is left alone: its
// connections are the parent's.
CURL* ProcessHandle() {
    static CURL* handle = nullptr;
    static pid_t opener = 0;
    if (handle == nullptr || opener != getpid()) {
        static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
        handle = ready == CURLE_OK ? curl_easy_init() : nullptr;
        opener = getpid();
    }
    return handle;
}

}  // namespace

HttpReply SendHttpPost(const HttpPost& post) {
    HttpReply reply;
    reply.failure = RefusalOf(post);
    if (!reply.failure.empty()) {
        return reply;
    }
    CURL* const handle = ProcessHandle();
    if (handle == nullptr) {
        reply.failure = "the HTTP library could not be started";
        return reply;
    }
    HttpTransfer transfer(handle, post);
    return transfer.Finish(curl_easy_perform(handle));
}

}  // namespace pavane
