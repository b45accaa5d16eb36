#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <json/json.h>

namespace korv {

// A request as it came over the wire, already checked: all texts are UTF-8 without NUL.
struct WireRequest {
    std::string api;
    int version = 0;
    std::string method;
    Json::Value params{Json::objectValue};
};

// Reads the object of a request. Nothing when it is malformed: no single JSON object, a key given twice,
// nested too deeply, "api", "version" or "method" missing or of the wrong type, a text with NUL or that is no
// UTF-8, or a parameter whose name ends in "_file_tmp", which only an upload can bring.
std::optional<WireRequest> ParseWireRequest(std::string_view text);

// The cookies of a Cookie header; the first of a name counts. Parts without '=' are left out.
std::map<std::string, std::string> ParseCookies(std::string_view header);

// True for names that stand for uploaded files only.
bool IsUploadName(std::string_view name);

}  // namespace korv
