#pragma once

#include <map>
#include <string>

#include <json/json.h>

#include "platform/korv/api_request.h"

namespace korv {

// The account that in-process callers name for the machine's own administrator, present or not. Requests on
// the peer pool run as it too, but are not authorized.
inline constexpr const char* kAdminAccount = "admin";

// True for a request of a paired server: one on the peer pool, which lets nothing else pass. For the few
// methods that such a server may call beside the application's.
bool IsFromPairedServer(const KORV::APIRequest& request);

}  // namespace korv

// What the framework knows of a request.
struct KORV::APIRequest::State {
    std::string api;
    int version = 0;
    std::string method;
    Json::Value params{Json::objectValue};  // without the three above
    std::map<std::string, std::string> cookies;
    std::string sessionId;  // a secret
    std::string user;
    std::string remoteIp;
    bool isAuthorized = false;
    bool isInProcess = false;
};
