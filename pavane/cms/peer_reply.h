#pragma once

#include <string>

#include <json/json.h>

namespace pavane {

// Reads the answer of another server: a JSON object with the members of a web API's answer, whose "data" is
// an object or nothing and whose "error" holds a number as "code" and an object or nothing as "errors". What
// callers take out of "data" is missing or the number, flag or list of objects that they take it for. False
// for anything else, and `reply` is unchanged then: a wrong type is a failed send, not an exception later.
bool ParsePeerReply(const std::string& body, Json::Value& reply);

}  // namespace pavane
