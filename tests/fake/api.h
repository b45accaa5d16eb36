#pragma once

#include <map>
#include <string>

#include <json/json.h>

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"

// A request as a scenario gives it.
struct KORV::APIRequest::State {
    std::string api = "KORV.Pavane.Share";
    int version = 1;
    std::string method;
    Json::Value params{Json::objectValue};
    std::map<std::string, std::string> cookies;
    std::string session;
    bool authorized = true;
    std::string user = "alice";
    bool admin = false;
    bool appPriv = true;
    std::string remoteIp = "192.0.2.10";
};

// Answers go to the director.
struct KORV::APIResponse::State {};
