#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <json/json.h>

namespace pavane {

// What a JSON value must look like (the language of platform/pavane/json.h).
class JsonSchema {
public:
    // Nothing for a text that is no schema: no YAML or more than one document, a type, a keyword or a tag
    // that there isn't, a keyword that says nothing about the type it stands beside, a keyword or a member
    // that stands twice, more than 64 levels or 10,000 nodes (an alias counts as what it stands for).
    static std::optional<JsonSchema> Parse(const std::string& text);

    bool Fits(const Json::Value& value) const;

private:
    friend class JsonSchemaReader;

    std::string m_type;
    std::shared_ptr<const JsonSchema> m_element;  // null = anything
    std::map<std::string, JsonSchema> m_required;
    std::map<std::string, JsonSchema> m_optional;
};

}  // namespace pavane
