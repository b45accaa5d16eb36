#pragma once

#include <string>

#include <json/json.h>

// `value` as compact JSON text on one line, for log entries. UTF-8 stays as it is.
std::string JsonText(const Json::Value& value);
