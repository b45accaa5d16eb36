#include "pavane/http_post.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include <curl/curl.h>

namespace pavane {

namespace {

constexpr const char* kTlsScheme = "https:";
constexpr long kKeptConnections = 128;  // a host talks to all of its recording servers

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

struct Receiver {
    std::string* body;
    std::size_t limit;
};

std::size_t Receive(char* data, std::size_t size, std::size_t count, void* context) {
    auto* const receiver = static_cast<Receiver*>(context);
    const std::size_t length = size * count;
    if (length > receiver->limit - std::min(receiver->limit, receiver->body->size())) {
        return 0;  // ends the transfer as a failure
    }
    receiver->body->append(data, length);
    return length;
}

// The value of the header `name` (lower case, with its colon) when `line` is one, else nothing.
std::string HeaderValue(const std::string& line, const std::string& name) {
    if (line.size() < name.size() || strncasecmp(line.c_str(), name.c_str(), name.size()) != 0) {
        return "";
    }
    const std::size_t begin = line.find_first_not_of(' ', name.size());
    const std::size_t end = line.find_last_not_of("\r\n ");
    return begin == std::string::npos || begin > end ? "" : line.substr(begin, end - begin + 1);
}

std::size_t ReceiveHeader(char* data, std::size_t size, std::size_t count, void* context) {
    auto* const reply = static_cast<HttpReply*>(context);
    const std::string line(data, size * count);
    const std::string cookie = HeaderValue(line, "set-cookie:");
    const std::string date = HeaderValue(line, "date:");
    if (reply->sessionCookie.empty() && !cookie.empty()) {
        reply->sessionCookie = cookie.substr(0, cookie.find(';'));
    }
    if (!date.empty()) {
        reply->date_s = std::max<std::int64_t>(curl_getdate(date.c_str(), nullptr), 0);
    }
    return line.size();
}

int ReportProgress(void* context, curl_off_t /*downTotal*/, curl_off_t /*down*/, curl_off_t /*upTotal*/,
                   curl_off_t /*up*/) {
    const auto* const post = static_cast<const HttpPost*>(context);
    post->progress();
    return 0;
}

using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

HeaderList MakeHeaders(const std::vector<std::string>& headers) {
    curl_slist* list = nullptr;
    for (const std::string& header : headers) {
        if (curl_slist* const longer = curl_slist_append(list, header.c_str())) {
            list = longer;
        }
    }
    return {list, &curl_slist_free_all};
}

void SetUp(CURL* handle, const HttpPost& post, const HeaderList& headers, Receiver& receiver,
           HttpReply& reply) {
    curl_easy_reset(handle);
    curl_easy_setopt(handle, CURLOPT_URL, post.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, post.connectTimeout_ms);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, post.totalTimeout_ms);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, post.body.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(post.body.size()));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Receive);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &receiver);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &ReceiveHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &reply);
    curl_easy_setopt(handle, CURLOPT_MAXCONNECTS, kKeptConnections);
    if (!post.unixSocket.empty()) {
        curl_easy_setopt(handle, CURLOPT_UNIX_SOCKET_PATH, post.unixSocket.c_str());
    }
    if (!post.pinnedKey.empty()) {
        // The pin is the whole trust: peers have certificates of their own making.
        curl_easy_setopt(handle, CURLOPT_PINNEDPUBLICKEY, post.pinnedKey.c_str());
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (post.progress != nullptr) {
        curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &ReportProgress);
        curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &post);
    }
}

}  // namespace

HttpReply SendHttpPost(const HttpPost& post) {
    HttpReply reply;
    if (post.url.rfind(kTlsScheme, 0) == 0 && post.pinnedKey.empty()) {
        reply.failure = "no key is pinned for this server";
        return reply;
    }
    CURL* const handle = ProcessHandle();
    if (handle == nullptr) {
        reply.failure = "the HTTP library could not be started";
        return reply;
    }
    const HeaderList headers = MakeHeaders(post.headers);
    Receiver receiver{&reply.body, post.replyLimit};
    SetUp(handle, post, headers, receiver, reply);
    const CURLcode result = curl_easy_perform(handle);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_off_t connected_us = 0;
    curl_easy_getinfo(handle, CURLINFO_CONNECT_TIME_T, &connected_us);
    reply.ok = result == CURLE_OK;
    reply.keyDiffers = result == CURLE_SSL_PINNEDPUBKEYNOTMATCH;
    reply.timedOut = result == CURLE_OPERATION_TIMEDOUT;
    char* localIp = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_LOCAL_IP, &localIp) == CURLE_OK && localIp != nullptr) {
        reply.localIp = localIp;
    }
    reply.neverConnected = result == CURLE_COULDNT_CONNECT || result == CURLE_COULDNT_RESOLVE_HOST ||
                           (result == CURLE_OPERATION_TIMEDOUT && connected_us == 0);
    if (!reply.ok) {
        reply.failure = curl_easy_strerror(result);
        reply.body.clear();
    }
    // Nothing of this request is left behind in the handle but its connection.
    curl_easy_reset(handle);
    return reply;
}

}  // namespace pavane
