#pragma once

#include <memory>
#include <string>

#include <json/json.h>

namespace KORV {

// One request as a web API method sees it: what was asked, by whom, from where.
// Made by the framework for the length of one call of an entry function; the module only borrows it.
// Not safe for use from several threads. No member logs; none fails but GetParam's caller-side conversions.
// Implemented in korv/framework/api_request.cpp.
class APIRequest {
public:
    // The platform's own data behind a request; each platform defines it for itself.
    struct State;

    explicit APIRequest(std::unique_ptr<State> state);
    ~APIRequest();
    APIRequest(const APIRequest&) = delete;
    APIRequest& operator=(const APIRequest&) = delete;

    // The parameter `name`, or `defaultValue` when the request has none of that name.
    // The empty name gives the object of all parameters ("api", "version" and "method" are not among them).
    // Never fails; converting the value (asInt, asString, ...) throws Json::LogicError when its type does not
    // fit.
    Json::Value GetParam(const std::string& name, const Json::Value& defaultValue) const;

    // The cookie `name`, or `defaultValue` when the request carries none of that name.
    std::string GetCookie(const std::string& name, const std::string& defaultValue) const;

    // The id of the caller's session; empty without one. A secret: never logged.
    std::string GetSessionID() const;

    // "api", "method" and "version" of the request.
    std::string GetAPIClass() const;
    std::string GetAPIMethod() const;
    int GetAPIVersion() const;

    // The account that the request runs as; empty without a session, "admin" on the peer pool.
    std::string GetLoginUserName() const;

    // The caller's address as text (IPv4 or IPv6, no port); empty for in-process calls.
    std::string GetRemoteIP() const;

    // True when the request has a live session, or was made in-process.
    bool IsAuthorized() const;

    // True when the login user may use the application `app` (e.g. "KORV.KRX.Pavane") from anywhere.
    bool HasAppPriv(const std::string& app) const;

    // True when the login user is an administrator of this machine.
    bool IsAdmin() const;

private:
    std::unique_ptr<State> m_state;
};

}  // namespace KORV
