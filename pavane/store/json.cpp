#include "platform/pavane/json.h"

#include "pavane/store/json_schema.h"

int PVJson::Validate(const std::string& schema, const Json::Value& value) {
    const auto parsed = pavane::JsonSchema::Parse(schema);
    return parsed && parsed->Fits(value) ? 0 : -1;
}

void PVJson::CopyProps(Json::Value& to, const Json::Value& from) {
    for (auto member = from.begin(); member != from.end(); ++member) {
        to[member.name()] = *member;
    }
}

Json::Value GetJsonAPIInfo(const std::string& api, const std::string& method, int version) {
    Json::Value info(Json::objectValue);
    info["api"] = api;
    info["method"] = method;
    info["version"] = version;
    return info;
}
