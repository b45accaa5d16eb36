#include "pavane/cms/remote_session.h"

#include <exception>
#include <utility>

#include "pavane/cms/peer_reply.h"
#include "pavane/log_line.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/cms/remote_session";
constexpr const char* kSessionApi = "KORV.Core.Session";
constexpr long kConnectTimeout_ms = 5000;
constexpr long kAnswerTimeout_ms = 15000;
constexpr std::size_t kReplyLimit = 65536;

Json::Value MakeRequest(const std::string& api, const std::string& method, const Json::Value& parameters) {
    Json::Value request = parameters;
    request["api"] = api;
    request["version"] = 1;
    request["method"] = method;
    return request;
}

Json::Value Parse(const HttpReply& reply) {
    Json::Value answer;
    if (!ParsePeerReply(reply.body, answer)) {
        throw RemoteFailure(SendFailure::kBadAnswer);
    }
    return answer;
}

}  // namespace

int CodeOf(const Json::Value& answer) {
    const Json::Value& success = answer["success"];
    if (success.isBool() && success.asBool()) {
        return 0;
    }
    const Json::Value& error = answer["error"];
    return error.isObject() && error["code"].isInt() ? error["code"].asInt() : -1;
}

RemoteSession::RemoteSession(std::string address, std::string fingerprint)
    : m_address(std::move(address)), m_fingerprint(std::move(fingerprint)) {}

RemoteSession::~RemoteSession() {
    if (m_cookie.empty()) {
        return;
    }
    try {
        Call(kSessionApi, "logout", Json::Value(Json::objectValue));
    } catch (const std::exception&) {
        PV_LOG_LINE(kSource, "The session for pairing could not be ended; it ends by itself.\n");
    }
}

HttpReply RemoteSession::Post(const Json::Value& request) {
    HttpPost post;
    post.url = m_address + "/webapi";
    post.body = CompactJson(request);
    post.headers = {"Content-Type: application/json", "Expect:"};
    if (!m_cookie.empty()) {
        post.headers.push_back("Cookie: " + m_cookie);
        post.headers.push_back("X-Korv-Csrf: " + m_csrf);
    }
    post.pinnedKey = m_fingerprint;
    post.connectTimeout_ms = kConnectTimeout_ms;
    post.totalTimeout_ms = kAnswerTimeout_ms;
    post.replyLimit = kReplyLimit;
    HttpReply reply = SendHttpPost(post);
    if (!reply.ok) {
        PV_LOG_LINE(kSource, "Failed to ask a server that is to be paired: %s\n", reply.failure.c_str());
        throw RemoteFailure(FailureOf(reply));
    }
    m_localIp = reply.localIp;
    return reply;
}

int RemoteSession::Login(const std::string& account, const std::string& password) {
    Json::Value parameters(Json::objectValue);
    parameters["account"] = account;
    parameters["passwd"] = password;
    const HttpReply reply = Post(MakeRequest(kSessionApi, "login", parameters));
    const Json::Value answer = Parse(reply);
    const int code = CodeOf(answer);
    if (code != 0) {
        return code;
    }
    const Json::Value& csrf = answer["data"]["csrf"];
    if (reply.sessionCookie.empty() || !csrf.isString()) {
        throw RemoteFailure(SendFailure::kBadAnswer);
    }
    m_cookie = reply.sessionCookie;
    m_csrf = csrf.asString();
    return 0;
}

Json::Value RemoteSession::Call(const std::string& api, const std::string& method,
                                const Json::Value& parameters) {
    return Parse(Post(MakeRequest(api, method, parameters)));
}

}  // namespace pavane
