#pragma once

#include <json/json.h>

namespace pavane {

// Takes what the application wants to know of a shared folder out of the share service's answer. False, and
// `info` unchanged, when the answer is an error or lacks something.
bool ReadShareInfo(const Json::Value& answer, Json::Value& info);

}  // namespace pavane
