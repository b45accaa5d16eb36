#pragma once

#include <string>

#include <json/json.h>

// Helpers for JSON values. Implemented in pavane/store/json.cpp.

namespace PVJson {

// Checks `value` against a schema: 0 when it fits, -1 otherwise, also for a schema that can't be read.
// A schema is YAML: {type: array|object|string|integer|number|boolean|any, element: <schema of every
// element>, required: {<member>: <schema>, ...}, optional: {...}}; the name of a type stands for {type:
// <name>}. Members that the schema doesn't name are allowed.
int Validate(const std::string& schema, const Json::Value& value);

// Copies every member of the object `from` into the object `to`, replacing members of the same name.
void CopyProps(Json::Value& to, const Json::Value& from);

}  // namespace PVJson

// {"api", "method", "version"}: the start of a request for another server.
Json::Value GetJsonAPIInfo(const std::string& api, const std::string& method, int version);
