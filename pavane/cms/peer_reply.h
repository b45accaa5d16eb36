#pragma once

#include <string>

#include <json/json.h>

namespace pavane {

// Reads the answer of another server: a JSON object with the members of a web API's answer, whose "data" is
// an object or nothing and whose "error" holds a number as "code" and an object or nothing as "errors". False
// for anything else, and `reply` is unchanged then: what relays look at has its right type.
bool ParsePeerReply(const std::string& body, Json::Value& reply);

}  // namespace pavane
