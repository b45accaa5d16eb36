// Helpers for JSON values. Those that only compute are not recorded.

#include "platform/pavane/json.h"

#include "platform/pavane/application.h"

#include "tests/fake/director.h"

int PVJson::Validate(const std::string& schema, const Json::Value& value) {
    return fake::Ask("PVJson::Validate", fake::Args(schema, value)).asInt();
}

void PVJson::CopyProps(Json::Value& to, const Json::Value& from) {
    for (const std::string& name : from.getMemberNames()) {
        to[name] = from[name];
    }
}

Json::Value GetJsonAPIInfo(const std::string& api, const std::string& method, int version) {
    Json::Value info;
    info["api"] = api;
    info["method"] = method;
    info["version"] = version;
    return info;
}

Json::Value PVJson::JsonConverter<MultilangString, void>::ToJson(const MultilangString& text) {
    Json::Value object(Json::objectValue);
    for (const auto& [language, words] : text.GetTexts()) {
        object[language] = words;
    }
    return object;
}
