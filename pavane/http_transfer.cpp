#include "pavane/http_transfer.h"

#include <strings.h>

#include <algorithm>
#include <utility>

#include <sys/socket.h>

namespace pavane {

namespace {

constexpr const char* kTlsScheme = "https:";
constexpr long kKeptConnections = 128;  // a host talks to all of its recording servers

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

// A connection is cut off when it is closed: a request that has not got through when its sender gives up must
// not arrive afterwards, when nobody counts on it any more.
int CutOffAtClose(void* /*context*/, curl_socket_t socket, curlsocktype /*purpose*/) {
    constexpr linger kAtOnce{1, 0};
    return setsockopt(socket, SOL_SOCKET, SO_LINGER, &kAtOnce, sizeof kAtOnce) == 0 ? CURL_SOCKOPT_OK
                                                                                    : CURL_SOCKOPT_ERROR;
}

int ReportProgress(void* context, curl_off_t /*downTotal*/, curl_off_t /*down*/, curl_off_t /*upTotal*/,
                   curl_off_t /*up*/) {
    const auto* const post = static_cast<const HttpPost*>(context);
    post->progress();
    return 0;
}

}  // namespace

std::string RefusalOf(const HttpPost& post) {
    const bool isTls = post.url.rfind(kTlsScheme, 0) == 0;
    return isTls && post.pinnedKey.empty() ? "no key is pinned for this server" : "";
}

HttpTransfer::HttpTransfer(CURL* handle, HttpPost post) : m_handle(handle), m_post(std::move(post)) {
    for (const std::string& header : m_post.headers) {
        if (curl_slist* const longer = curl_slist_append(m_headers, header.c_str())) {
            m_headers = longer;
        }
    }
    curl_easy_reset(m_handle);
    SetUp();
}

HttpTransfer::~HttpTransfer() {
    curl_easy_reset(m_handle);
    curl_slist_free_all(m_headers);
}

std::size_t HttpTransfer::ReceiveBody(char* data, std::size_t size, std::size_t count, void* transfer) {
    auto* const self = static_cast<HttpTransfer*>(transfer);
    std::string& body = self->m_reply.body;
    const std::size_t length = size * count;
    if (length > self->m_post.replyLimit - std::min(self->m_post.replyLimit, body.size())) {
        return 0;  // ends the transfer as a failure
    }
    body.append(data, length);
    return length;
}

void HttpTransfer::SetUp() {
    curl_easy_setopt(m_handle, CURLOPT_URL, m_post.url.c_str());
    curl_easy_setopt(m_handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(m_handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(m_handle, CURLOPT_PROXY, "");
    curl_easy_setopt(m_handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_handle, CURLOPT_CONNECTTIMEOUT_MS, m_post.connectTimeout_ms);
    curl_easy_setopt(m_handle, CURLOPT_TIMEOUT_MS, m_post.totalTimeout_ms);
    curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
    curl_easy_setopt(m_handle, CURLOPT_POSTFIELDS, m_post.body.data());
    curl_easy_setopt(m_handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_post.body.size()));
    curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &ReceiveBody);
    curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(m_handle, CURLOPT_HEADERFUNCTION, &ReceiveHeader);
    curl_easy_setopt(m_handle, CURLOPT_HEADERDATA, &m_reply);
    curl_easy_setopt(m_handle, CURLOPT_MAXCONNECTS, kKeptConnections);
    curl_easy_setopt(m_handle, CURLOPT_SOCKOPTFUNCTION, &CutOffAtClose);
    if (!m_post.unixSocket.empty()) {
        curl_easy_setopt(m_handle, CURLOPT_UNIX_SOCKET_PATH, m_post.unixSocket.c_str());
    }
    if (!m_post.pinnedKey.empty()) {
        // The pin is the whole trust: peers have certificates of their own making.
        curl_easy_setopt(m_handle, CURLOPT_PINNEDPUBLICKEY, m_post.pinnedKey.c_str());
        curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (m_post.progress != nullptr) {
        curl_easy_setopt(m_handle, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(m_handle, CURLOPT_XFERINFOFUNCTION, &ReportProgress);
        curl_easy_setopt(m_handle, CURLOPT_XFERINFODATA, &m_post);
    }
}

HttpReply HttpTransfer::Finish(CURLcode result) {
    curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &m_reply.status);
    curl_off_t connected_us = 0;
    curl_easy_getinfo(m_handle, CURLINFO_CONNECT_TIME_T, &connected_us);
    m_reply.ok = result == CURLE_OK;
    m_reply.keyDiffers = result == CURLE_SSL_PINNEDPUBKEYNOTMATCH;
    m_reply.timedOut = result == CURLE_OPERATION_TIMEDOUT;
    char* localIp = nullptr;
    if (curl_easy_getinfo(m_handle, CURLINFO_LOCAL_IP, &localIp) == CURLE_OK && localIp != nullptr) {
        m_reply.localIp = localIp;
    }
    // A kept connection took no time to be made.
    long sent_bytes = 0;
    curl_easy_getinfo(m_handle, CURLINFO_REQUEST_SIZE, &sent_bytes);
    m_reply.neverConnected = result == CURLE_COULDNT_CONNECT || result == CURLE_COULDNT_RESOLVE_HOST ||
                             (m_reply.timedOut && connected_us == 0 && sent_bytes == 0);
    if (!m_reply.ok) {
        m_reply.failure = curl_easy_strerror(result);
        m_reply.body.clear();
    }
    return std::move(m_reply);
}

}  // namespace pavane
