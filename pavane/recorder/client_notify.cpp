#include <exception>
#include <string>

#include "platform/korv/configuration.h"
#include "platform/pavane/events.h"

#include "pavane/http_post.h"
#include "pavane/log_line.h"

namespace {

constexpr const char* kSource = "pavane/recorder/client_notify";
constexpr long kConnectTimeout_ms = 500;
constexpr long kTotalTimeout_ms = 2000;
constexpr std::size_t kReplyLimit = 64UL * 1024;
constexpr long kFirstErrorStatus = 300;

}  // namespace

void PVClientNotify::Notify(CLIENT_NOTIFY_TYPE type) {
    try {
        pavane::HttpPost post;
        post.url = "http://localhost/publish";
        post.unixSocket = KORV::GetConfiguration().runDir + "/notify.sock";
        post.body = "{\"type\":" + std::to_string(type) + "}";
        post.headers = {"Content-Type: application/json"};
        post.connectTimeout_ms = kConnectTimeout_ms;
        post.totalTimeout_ms = kTotalTimeout_ms;
        post.replyLimit = kReplyLimit;
        const pavane::HttpReply reply = pavane::SendHttpPost(post);
        if (!reply.ok) {
            PV_LOG_LINE(kSource, "Failed to notify the clients: %s\n", reply.failure.c_str());
        } else if (reply.status >= kFirstErrorStatus) {
            PV_LOG_LINE(kSource, "Failed to notify the clients: HTTP status %ld\n", reply.status);
        }
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to notify the clients: %s\n", failure.what());
    }
}
