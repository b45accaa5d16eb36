#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace scenario {

// `value` as text on one line, such that two values are equal on the wire exactly when their texts are:
// whole numbers compare by value, reals always show that they are reals, members stand in order of name.
std::string OneLine(const Json::Value& value);

// The same, one line for each member and item.
std::vector<std::string> ManyLines(const Json::Value& value);

// Empty when the two are equal; else `what` and both in one listing: "  " common, "- " expected only,
// "+ " actual only.
std::string Difference(const std::string& what, const std::vector<std::string>& expected,
                       const std::vector<std::string>& actual);

}  // namespace scenario
