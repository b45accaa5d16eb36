#pragma once

#include <json/json.h>

namespace KORV {

// Calls another web API of this machine in-process and synchronously.
// Implemented in korv/framework/api_runner.cpp.
class APIRunner {
public:
    // Runs `method` of the API `api`, `version`, with the parameters `request` (an object) as the NAS user
    // `user`; "admin" is always an administrator.
    //   response  out, replaced: {"success": true, "data": ...} or {"success": false, "error": {"code": N,
    //             "errors": ...}}, the shape that a client gets over HTTP; an unknown method answers
    //             likewise.
    // Blocks until the method has answered. Throws nothing of its own: what a method throws becomes its error
    // code.
    static void Exec(Json::Value& response, const char* api, int version, const char* method,
                     const Json::Value& request, const char* user);
};

}  // namespace KORV
