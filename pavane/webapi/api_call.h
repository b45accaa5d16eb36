#pragma once

#include <stdexcept>
#include <string>

#include <json/json.h>

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"

// What every web API of the application does around its methods.
namespace pavane {

enum class Access {
    kUse,     // whoever may use the application, and administrators
    kChange,  // administrators
    kPeer,    // paired servers
};

// A parameter that is missing or invalid: error 401 with its name and what is wrong with it.
class BadParameter : public std::runtime_error {
public:
    BadParameter(const std::string& name, const std::string& why) : std::runtime_error(why), m_name(name) {}
    const std::string& Name() const { return m_name; }

private:
    std::string m_name;
};

// What a method fails with on purpose: a code of its API's own and what `param1` and `param2` are to say.
class MethodFailure : public std::runtime_error {
public:
    explicit MethodFailure(int code, const std::string& param1 = "", const std::string& param2 = "")
        : std::runtime_error(param1), m_code(code), m_param2(param2) {}
    int Code() const { return m_code; }
    const std::string& Param2() const { return m_param2; }

private:
    int m_code;
    std::string m_param2;
};

// A method: reads the request, acts and gives the data of a successful answer. Throws BadParameter,
// MethodFailure, and anything else when it fails.
using ApiMethod = Json::Value (*)(const KORV::APIRequest& request);

// Admits the caller (else error 105), runs the method and answers. A failure is logged and answered with 400;
// what JsonCpp throws about a parameter of the wrong type passes through to the framework.
void Serve(Access access, ApiMethod method, const KORV::APIRequest& request, KORV::APIResponse& response);

// Which part of a long list is asked for: the parameters "offset" (0 or more, default 0) and "limit" (1 to
// 1000, default 100).
struct PageRequest {
    int offset;
    int limit;
};

PageRequest ReadPage(const KORV::APIRequest& request);

// True for valid UTF-8 without control characters (U+0000 to U+001F, U+007F to U+009F).
bool IsPlainText(const std::string& text);

// True for an absolute path of plain text, of at most 4096 bytes, in its shortest form: no component empty,
// "." or "..", no slash at the end. So it must read to be compared byte for byte.
bool IsCleanPath(const std::string& path);

}  // namespace pavane
