// Sends web API requests to paired servers.

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <string>

#include <json/json.h>
#include <soci/soci.h>

#include "platform/pavane/cms.h"

#include "pavane/cms/pairing.h"
#include "pavane/cms/peer_reply.h"
#include "pavane/http_post.h"
#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace {

constexpr const char* kSource = "pavane/cms/peer_client";
constexpr int kSent = 0;
constexpr int kFailed = -1;
constexpr int kRecServerWait_s = 30;
constexpr long kConnectTimeout_ms = 5000;
constexpr std::size_t kReplyLimit = 16UL * 1024 * 1024;

// A paired server.
//   address  "http://host[:port]" or "https://host[:port]"
//   serial   of the recording server in this pair, whichever side it is
struct Peer {
    std::string name;  // for the log
    std::string address;
    std::string serial;
    std::string secret;
    std::string pinnedKey;
};

struct SendOptions {
    int wait_s;
    void (*progress)();
    int retries;
};

// False when this server has no host.
bool LoadHost(Peer& peer) {
    peer.name = "the host";
    soci::session& session = pavane::AppDatabase().Session();
    session << "select address, own_serial, pair_secret, pinned_key from cms_host where id = 1",
        soci::into(peer.address), soci::into(peer.serial), soci::into(peer.secret),
        soci::into(peer.pinnedKey);
    return session.got_data();
}

bool LoadRecServer(int rvId, Peer& peer) {
    peer.name = "recording server " + std::to_string(rvId);
    soci::session& session = pavane::AppDatabase().Session();
    session << "select address, serial, pair_secret, pinned_key from rec_server where id = :id",
        soci::into(peer.address), soci::into(peer.serial), soci::into(peer.secret),
        soci::into(peer.pinnedKey), soci::use(rvId);
    return session.got_data();
}

std::string Body(const Json::Value& request, const Peer& peer, const std::string& stamp) {
    Json::Value signedRequest = request;
    signedRequest["client"] = "REC_SERVER";
    signedRequest["recSerialNum"] = peer.serial;
    signedRequest["cookie"] = pavane::MakePairKey(peer.secret, stamp);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, signedRequest);
}

// One stamp serves all tries: a try that never connected has not used it up.
pavane::HttpReply SendWithin(pavane::HttpPost& post, const SendOptions& options) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(options.wait_s);
    pavane::HttpReply reply;
    for (int left = options.retries; left >= 0; --left) {
        const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (rest.count() <= 0) {
            break;
        }
        post.totalTimeout_ms = rest.count();
        post.connectTimeout_ms = std::min(kConnectTimeout_ms, post.totalTimeout_ms);
        reply = pavane::SendHttpPost(post);
        if (!reply.neverConnected) {
            break;
        }
    }
    return reply;
}

int SendToPeer(const Peer& peer, const Json::Value& request, const SendOptions& options, Json::Value& reply) {
    if (peer.secret.empty() || peer.address.empty()) {
        PV_LOG_LINE(kSource, "Failed to send to %s: it is not paired\n", peer.name.c_str());
        return kFailed;
    }
    const std::string stamp = pavane::MakeStamp();
    pavane::HttpPost post;
    post.url = peer.address + "/peer";
    post.body = Body(request, peer, stamp);
    post.headers = {"Content-Type: application/json", "Cookie: timestamp=" + stamp, "Expect:"};
    post.pinnedKey = peer.pinnedKey;
    post.replyLimit = kReplyLimit;
    post.progress = options.progress;
    const pavane::HttpReply answer = SendWithin(post, options);
    if (!answer.ok) {
        PV_LOG_LINE(kSource, "Failed to send to %s: %s\n", peer.name.c_str(), answer.failure.c_str());
        return kFailed;
    }
    if (!pavane::ParsePeerReply(answer.body, reply)) {
        PV_LOG_LINE(kSource, "The answer of %s, HTTP status %ld, is no web API's.\n", peer.name.c_str(),
                    answer.status);
        return kFailed;
    }
    return kSent;
}

// `load` fills the peer and says whether there is one.
template <class Load>
int Send(const Load& load, const Json::Value& request, bool binary, const SendOptions& options,
         Json::Value& reply) {
    reply = Json::Value();
    if (binary) {
        PV_LOG_LINE(kSource, "Answers that are files are not supported.\n");
        return kFailed;
    }
    try {
        Peer peer;
        if (!load(peer)) {
            PV_LOG_LINE(kSource, "Failed to send to %s: it is not known\n", peer.name.c_str());
            return kFailed;
        }
        return SendToPeer(peer, request, options, reply);
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to send to a peer: %s\n", pavane::DescribeFailure(failure).c_str());
        return kFailed;
    }
}

}  // namespace

int SendWebAPIToHost(const Json::Value& request, bool binary, Json::Value& reply, int wait_s,
                     void (*progress)(), int retries) {
    return Send(&LoadHost, request, binary, {wait_s, progress, retries}, reply);
}

int SendWebAPIToRecServerByJson(int rvId, const Json::Value& request, bool binary, Json::Value& reply) {
    const auto load = [rvId](Peer& peer) { return LoadRecServer(rvId, peer); };
    return Send(load, request, binary, {kRecServerWait_s, nullptr, 0}, reply);
}
