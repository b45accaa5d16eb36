#pragma once

#include <stdexcept>
#include <string>

#include <json/json.h>

#include "pavane/cms/peer_client.h"
#include "pavane/http_post.h"

namespace pavane {

// The other server could not be asked.
class RemoteFailure : public std::runtime_error {
public:
    explicit RemoteFailure(SendFailure reason)
        : std::runtime_error("a server that is to be paired could not be asked"), m_reason(reason) {}
    SendFailure Reason() const { return m_reason; }

private:
    SendFailure m_reason;
};

// A person's session on another server, for the moment of pairing. The server must show the key of
// `fingerprint`. Ends with the object. Each call blocks for seconds at most.
class RemoteSession {
public:
    RemoteSession(std::string address, std::string fingerprint);
    ~RemoteSession();
    RemoteSession(const RemoteSession&) = delete;
    RemoteSession& operator=(const RemoteSession&) = delete;

    // 0, or the code with which the server refused. The password is kept nowhere. Throws RemoteFailure.
    int Login(const std::string& account, const std::string& password);

    // The whole answer of a method of version 1. Throws RemoteFailure.
    Json::Value Call(const std::string& api, const std::string& method, const Json::Value& parameters);

    // This machine's address on the connection of the last call.
    const std::string& LocalIp() const { return m_localIp; }

private:
    HttpReply Post(const Json::Value& request);

    std::string m_address;
    std::string m_fingerprint;
    std::string m_cookie;
    std::string m_csrf;
    std::string m_localIp;
};

// The error code of an answer; 0 for a success, -1 for what is no answer of a recorder.
int CodeOf(const Json::Value& answer);

}  // namespace pavane
