#pragma once

#include <string>
#include <string_view>

#include <json/json.h>

namespace korv {

// Appends `value` to `text` as compact JSON. The result is valid JSON whatever the value holds: control
// characters are escaped, bytes that are no UTF-8 become U+FFFD, reals keep every bit, and a real that is not
// finite becomes null. Copies no part of the value; recursion is as deep as the value.
void AppendJson(std::string& text, const Json::Value& value);

// Appends one JSON string, quotes included.
void AppendJsonString(std::string& text, const char* begin, const char* end);

// The length of the UTF-8 character that starts at `at` (before `end`), or 0 when there is none: overlong
// forms, surrogates and code points past U+10FFFF are none.
std::size_t Utf8Length(const char* at, const char* end);

// True when `text` is UTF-8 without NUL.
bool IsCleanText(std::string_view text);

}  // namespace korv
