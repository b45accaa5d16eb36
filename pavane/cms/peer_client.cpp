#include "pavane/cms/peer_client.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include <json/json.h>
#include <soci/soci.h>

#include "platform/korv/configuration.h"
#include "platform/pavane/cms.h"

#include "pavane/cms/pairing.h"
#include "pavane/cms/peer_address.h"
#include "pavane/cms/peer_reply.h"
#include "pavane/http_posts.h"
#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/cms/peer_client";
constexpr long kConnectTimeout_ms = 5000;
constexpr long kAskConnectTimeout_ms = 2000;  // many servers may be asked in turn, and some be gone
constexpr std::size_t kMebibyte = 1024UL * 1024;
// A change is answered with a few values; a list holds at most what a server has. 30,000 entries of
// "ListShareUsage", three applications in each of 10,000 shares, are at most 10 MiB, and 10,000 records of
// "list_records" are as much with the longest names and 400 bytes of description and source in each.
constexpr std::size_t kChangeReplyLimit = 4 * kMebibyte;
constexpr std::size_t kListReplyLimit = 16 * kMebibyte;

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
    long connectTimeout_ms = kConnectTimeout_ms;
    bool isQuiet = false;  // a failure is for the caller to log
};

struct HostPeer : KeptQuery {
    explicit HostPeer(soci::session& session) {
        Prepare((session.prepare << "select address, own_serial, pair_secret, pinned_key from cms_host where "
                                    "id = 1",
                 soci::into(peer.address), soci::into(peer.serial), soci::into(peer.secret),
                 soci::into(peer.pinnedKey)));
        peer.name = "the host";
    }
    Peer peer;
};

struct RecServerPeer : KeptQuery {
    explicit RecServerPeer(soci::session& session) {
        Prepare(
            (session.prepare << "select address, serial, pair_secret, pinned_key from rec_server where id "
                                "= :id",
             soci::into(peer.address), soci::into(peer.serial), soci::into(peer.secret),
             soci::into(peer.pinnedKey), soci::use(id)));
    }
    int id = 0;
    Peer peer;
};

// False when this server has no host.
bool LoadHost(Peer& peer) {
    auto& query = AppDatabase().Kept<HostPeer>();
    const bool isThere = query.Run();
    peer = query.peer;
    return isThere;
}

bool LoadRecServer(int rvId, Peer& peer) {
    auto& query = AppDatabase().Kept<RecServerPeer>();
    query.id = rvId;
    query.peer.name = "recording server " + std::to_string(rvId);
    const bool isThere = query.Run();
    peer = query.peer;
    return isThere;
}

std::string Body(const Json::Value& request, const Peer& peer, const std::string& stamp) {
    Json::Value signedRequest = request;
    signedRequest["client"] = "REC_SERVER";
    signedRequest["recSerialNum"] = peer.serial;
    signedRequest["cookie"] = MakePairKey(peer.secret, stamp);
    return CompactJson(signedRequest);
}

// One stamp serves all tries: a try that never connected has not used it up.
HttpReply SendWithin(HttpPost& post, const SendOptions& options) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(options.wait_s);
    HttpReply reply;
    for (int left = options.retries; left >= 0; --left) {
        const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (rest.count() <= 0) {
            break;
        }
        post.totalTimeout_ms = rest.count();
        post.connectTimeout_ms = std::min(options.connectTimeout_ms, post.totalTimeout_ms);
        reply = SendHttpPost(post);
        if (!reply.neverConnected) {
            break;
        }
    }
    return reply;
}

SendOutcome Fail(const Peer& peer, const SendOptions& options, SendFailure failure, const std::string& why) {
    if (!options.isQuiet) {
        PV_LOG_LINE(kSource, "Failed to send to %s: %s\n", peer.name.c_str(), why.c_str());
    }
    return {failure, 0};
}

std::int64_t ClockAhead_s(const HttpReply& answer) {
    return answer.date_s != 0 ? answer.date_s - static_cast<std::int64_t>(std::time(nullptr)) : 0;
}

// Whether anything may be sent to it at all.
SendOutcome CheckPeer(const Peer& peer, const SendOptions& options) {
    if (peer.secret.empty() || peer.address.empty()) {
        return Fail(peer, options, SendFailure::kNotPaired, "it is not paired");
    }
    if (!IsPeerAddress(peer.address)) {
        return Fail(peer, options, SendFailure::kBadAddress, "its address is none of a paired server");
    }
    return {SendFailure::kNone, 0};
}

// All but its deadlines.
HttpPost MakePost(const Peer& peer, const Json::Value& request) {
    const std::string stamp = MakeStamp();
    HttpPost post;
    post.url = peer.address + "/peer";
    post.body = Body(request, peer, stamp);
    post.headers = {"Content-Type: application/json", "Cookie: timestamp=" + stamp, "Expect:"};
    post.pinnedKey = peer.pinnedKey;
    post.replyLimit = request["relayedCmd"] == true ? kChangeReplyLimit : kListReplyLimit;
    return post;
}

SendOutcome JudgeReply(const Peer& peer, const HttpReply& answer, const SendOptions& options,
                       Json::Value& reply) {
    if (answer.keyDiffers) {
        return Fail(peer, options, SendFailure::kKeyChanged,
                    "it shows another key than when it was paired. Either its key was made anew, or someone "
                    "stands between the servers; pair it again only after finding out which");
    }
    if (!answer.ok) {
        return Fail(peer, options, FailureOf(answer), answer.failure);
    }
    if (!ParsePeerReply(answer.body, reply)) {
        return Fail(peer, options, SendFailure::kBadAnswer,
                    "its answer, HTTP status " + std::to_string(answer.status) + ", is no web API's");
    }
    const std::int64_t ahead_s = ClockAhead_s(answer);
    if (IsClockTooFarOff(ahead_s) && !options.isQuiet) {
        PV_LOG_LINE(kSource,
                    "The clock of %s is %lld s %s this server's; it refuses pairing keys until both "
                    "agree.\n",
                    peer.name.c_str(), std::llabs(ahead_s), ahead_s > 0 ? "ahead of" : "behind");
    }
    return {SendFailure::kNone, ahead_s};
}

SendOutcome SendToPeer(const Peer& peer, const Json::Value& request, const SendOptions& options,
                       Json::Value& reply) {
    const SendOutcome check = CheckPeer(peer, options);
    if (check.failure != SendFailure::kNone) {
        return check;
    }
    HttpPost post = MakePost(peer, request);
    post.progress = options.progress;
    return JudgeReply(peer, SendWithin(post, options), options, reply);
}

bool LoadPeer(int rvId, Peer& peer) { return rvId > 0 ? LoadRecServer(rvId, peer) : LoadHost(peer); }

SendOutcome Send(int rvId, const Json::Value& request, const SendOptions& options, Json::Value& reply) {
    reply = Json::Value();
    try {
        Peer peer;
        if (!LoadPeer(rvId, peer)) {
            return Fail(peer, options, SendFailure::kNotPaired, "it is not known");
        }
        return SendToPeer(peer, request, options, reply);
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to send to a peer: %s\n", DescribeFailure(failure).c_str());
        reply = Json::Value();
        return {};
    }
}

// The contract's result of a send.
int SendPlain(int rvId, const Json::Value& request, bool binary, const SendOptions& options,
              Json::Value& reply) {
    if (binary) {
        reply = Json::Value();
        PV_LOG_LINE(kSource, "Answers that are files are not supported.\n");
        return -1;
    }
    return Send(rvId, request, options, reply).failure == SendFailure::kNone ? 0 : -1;
}

constexpr int kHost = 0;

}  // namespace

SendOutcome SendToPaired(int rvId, const Json::Value& request, int wait_s, Json::Value& reply) {
    return Send(rvId, request, {wait_s, nullptr, 0, kAskConnectTimeout_ms, true}, reply);
}

void AskRecServers(const std::vector<int>& rvIds, const Json::Value& request, int wait_s,
                   const std::function<void(int, const SendOutcome&, const Json::Value&)>& take) {
    const SendOptions options{wait_s, nullptr, 0, kAskConnectTimeout_ms, true};
    std::vector<std::pair<int, Peer>> peers;
    for (const int rvId : rvIds) {
        Peer peer;
        const SendOutcome check = LoadRecServer(rvId, peer)
                                      ? CheckPeer(peer, options)
                                      : Fail(peer, options, SendFailure::kNotPaired, "it is not known");
        if (check.failure == SendFailure::kNone) {
            peers.emplace_back(rvId, peer);
        } else {
            take(rvId, check, Json::Value());
        }
    }
    SendHttpPosts(
        peers.size(),
        [&](std::size_t index) {
            HttpPost post = MakePost(peers[index].second, request);
            post.totalTimeout_ms = std::chrono::milliseconds(std::chrono::seconds(wait_s)).count();
            post.connectTimeout_ms = std::min(options.connectTimeout_ms, post.totalTimeout_ms);
            return post;
        },
        [&](std::size_t index, const HttpReply& answer) {
            const auto& [rvId, peer] = peers[index];
            Json::Value reply;
            take(rvId, JudgeReply(peer, answer, options, reply), reply);
        });
}

SendFailure FailureOf(const HttpReply& answer) {
    if (answer.keyDiffers) {
        return SendFailure::kKeyChanged;
    }
    return answer.neverConnected ? SendFailure::kUnreachable : SendFailure::kNoAnswer;
}

std::string CompactJson(const Json::Value& value) {
    static const Json::StreamWriterBuilder builder = [] {  // making it takes longer than a short text
        Json::StreamWriterBuilder made;
        made["indentation"] = "";
        made["emitUTF8"] = true;  // a name may not grow on its way: the other side limits a request's size
        return made;
    }();
    return Json::writeString(builder, value);
}

bool IsClockTooFarOff(std::int64_t clockAhead_s) { return std::llabs(clockAhead_s) > kStampTolerance_s; }

}  // namespace pavane

int SendWebAPIToHost(const Json::Value& request, bool binary, Json::Value& reply, int wait_s,
                     void (*progress)(), int retries) {
    return pavane::SendPlain(pavane::kHost, request, binary, {wait_s, progress, retries}, reply);
}

// An id that is none of a recording server must not reach the host.
int SendWebAPIToRecServerByJson(int rvId, const Json::Value& request, bool binary, Json::Value& reply) {
    if (rvId <= 0) {
        reply = Json::Value();
        return -1;
    }
    return pavane::SendPlain(rvId, request, binary, {KORV::GetConfiguration().peerAnswer_s, nullptr, 0},
                             reply);
}
