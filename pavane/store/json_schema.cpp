#include "pavane/store/json_schema.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>

namespace pavane {

namespace {

constexpr int kDeepest = 64;

struct TypeRule {
    std::string_view name;
    bool (*fits)(const Json::Value& value);
};

constexpr std::array<TypeRule, 7> kTypes{{
    {"array", [](const Json::Value& value) { return value.isArray(); }},
    {"object", [](const Json::Value& value) { return value.isObject(); }},
    {"string", [](const Json::Value& value) { return value.isString(); }},
    {"integer",
     [](const Json::Value& value) {
         return value.type() == Json::intValue || value.type() == Json::uintValue;
     }},
    {"number", [](const Json::Value& value) { return value.isNumeric() && !value.isBool(); }},
    {"boolean", [](const Json::Value& value) { return value.isBool(); }},
    {"any", [](const Json::Value&) { return true; }},
}};

const TypeRule* FindType(const std::string& name) {
    const auto found = std::find_if(kTypes.begin(), kTypes.end(),
                                    [&name](const TypeRule& rule) { return rule.name == name; });
    return found != kTypes.end() ? &*found : nullptr;
}

}  // namespace

// Turns YAML into a schema. Throws std::runtime_error, as yaml-cpp does.
class JsonSchemaReader {
public:
    static JsonSchema Read(const YAML::Node& node, int depth) {
        if (depth > kDeepest) {
            throw std::runtime_error("a schema is too deep");
        }
        JsonSchema schema;
        if (node.IsScalar()) {
            schema.m_type = TypeName(node);
            return schema;
        }
        if (!node.IsMap() || !node["type"]) {
            throw std::runtime_error("a schema names no type");
        }
        schema.m_type = TypeName(node["type"]);
        for (const auto& rule : node) {
            ReadRule(schema, rule.first.as<std::string>(), rule.second, depth);
        }
        return schema;
    }

private:
    static std::string TypeName(const YAML::Node& node) {
        std::string name = node.as<std::string>();
        if (FindType(name) == nullptr) {
            throw std::runtime_error("there is no such type");
        }
        return name;
    }

    static void ReadRule(JsonSchema& schema, const std::string& rule, const YAML::Node& node, int depth) {
        if (rule == "element" && schema.m_type == "array") {
            schema.m_element = std::make_shared<const JsonSchema>(Read(node, depth + 1));
        } else if (rule == "required" && schema.m_type == "object") {
            schema.m_required = ReadMembers(node, depth);
        } else if (rule == "optional" && schema.m_type == "object") {
            schema.m_optional = ReadMembers(node, depth);
        } else if (rule != "type") {
            throw std::runtime_error("a rule is unknown or says nothing about its type");
        }
    }

    static std::map<std::string, JsonSchema> ReadMembers(const YAML::Node& node, int depth) {
        if (!node.IsMap()) {
            throw std::runtime_error("members have names");
        }
        std::map<std::string, JsonSchema> members;
        for (const auto& member : node) {
            members[member.first.as<std::string>()] = Read(member.second, depth + 1);
        }
        return members;
    }
};

std::optional<JsonSchema> JsonSchema::Parse(const std::string& text) {
    try {
        return JsonSchemaReader::Read(YAML::Load(text), 0);
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

bool JsonSchema::Fits(const Json::Value& value) const {
    if (!FindType(m_type)->fits(value)) {
        return false;
    }
    if (m_element != nullptr) {
        return std::all_of(value.begin(), value.end(),
                           [this](const Json::Value& element) { return m_element->Fits(element); });
    }
    const auto fitsMember = [&value](const auto& member) { return member.second.Fits(value[member.first]); };
    return std::all_of(
               m_required.begin(), m_required.end(),
               [&](const auto& member) { return value.isMember(member.first) && fitsMember(member); }) &&
           std::all_of(m_optional.begin(), m_optional.end(), [&](const auto& member) {
               return !value.isMember(member.first) || fitsMember(member);
           });
}

}  // namespace pavane
