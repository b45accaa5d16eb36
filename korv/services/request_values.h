#pragma once

#include <string>

#include <json/json.h>

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"

// Reading parameters strictly: a value of another type than the documented one throws Json::LogicError, which
// the framework answers as a malformed request. JsonCpp itself would convert a number to a text and so on.
namespace korv {

// Each gives `otherwise` when `object` has no member `key`.
std::string StringOf(const Json::Value& object, const char* key, const std::string& otherwise);
bool BoolOf(const Json::Value& object, const char* key, bool otherwise);

// The member `key`, an object or an array; an empty one when there is none.
Json::Value ObjectOf(const Json::Value& object, const char* key);
Json::Value ArrayOf(const Json::Value& object, const char* key);

// All parameters of a request.
Json::Value ParamsOf(const KORV::APIRequest& request);

// True when the caller is an administrator; otherwise the error has been answered.
bool AdmitAdministrator(const KORV::APIRequest& request, KORV::APIResponse& response);

// The same for a method that a paired server may call as well.
bool AdmitAdministratorOrServer(const KORV::APIRequest& request, KORV::APIResponse& response);

}  // namespace korv
