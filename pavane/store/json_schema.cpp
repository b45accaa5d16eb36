#include "pavane/store/json_schema.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace pavane {

namespace {

constexpr int kDeepest = 64;
constexpr int kMostNodes = 10000;  // counted where they are used: an alias costs what it stands for

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

// Takes a text's events and does nothing about them.
class NoEvents : public YAML::EventHandler {
public:
    void OnDocumentStart(const YAML::Mark& /*mark*/) override {}
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& /*mark*/, YAML::anchor_t /*anchor*/) override {}
    void OnAlias(const YAML::Mark& /*mark*/, YAML::anchor_t /*anchor*/) override {}
    void OnScalar(const YAML::Mark& /*mark*/, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                  const std::string& /*value*/) override {}
    void OnSequenceStart(const YAML::Mark& /*mark*/, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                         YAML::EmitterStyle::value /*style*/) override {}
    void OnSequenceEnd() override {}
    void OnMapStart(const YAML::Mark& /*mark*/, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                    YAML::EmitterStyle::value /*style*/) override {}
    void OnMapEnd() override {}
};

// YAML::Load reads the first document and leaves what follows it.
void CheckOneDocument(const std::string& text) {
    std::istringstream stream(text);
    YAML::Parser parser(stream);
    NoEvents nothing;
    if (!parser.HandleNextDocument(nothing) || parser.HandleNextDocument(nothing)) {
        throw std::runtime_error("a text is not one document");
    }
}

}  // namespace

// Turns YAML into a schema. Throws std::runtime_error, as yaml-cpp does.
class JsonSchemaReader {
public:
    JsonSchema Read(const YAML::Node& node, int depth) {
        if (depth > kDeepest || ++m_nodes > kMostNodes) {
            throw std::runtime_error("a schema is too deep or too large");
        }
        JsonSchema schema;
        if (node.IsScalar()) {
            schema.m_type = TypeName(node);
            return schema;
        }
        CheckMap(node);
        if (!node["type"]) {
            throw std::runtime_error("a schema names no type");
        }
        schema.m_type = TypeName(node["type"]);
        std::set<std::string> rules;
        for (const auto& rule : node) {
            const std::string name = Name(rule.first);
            CheckNew(rules.insert(name).second);
            ReadRule(schema, name, rule.second, depth);
        }
        return schema;
    }

private:
    // "!" stands for quotes, "?" for neither quotes nor a tag.
    static bool HasTag(const YAML::Node& node, std::string_view ownTag) {
        const std::string& tag = node.Tag();
        return tag.empty() || tag == "?" || tag == "!" || tag == ownTag;
    }

    static std::string Name(const YAML::Node& node) {
        if (!node.IsScalar() || !HasTag(node, "tag:yaml.org,2002:str")) {
            throw std::runtime_error("a name is no text");
        }
        return node.Scalar();
    }

    static void CheckMap(const YAML::Node& node) {
        if (!node.IsMap() || !HasTag(node, "tag:yaml.org,2002:map")) {
            throw std::runtime_error("there is something else than rules or members");
        }
    }

    static void CheckNew(bool isNew) {
        if (!isNew) {
            throw std::runtime_error("a rule or a member stands twice");
        }
    }

    static std::string TypeName(const YAML::Node& node) {
        std::string name = Name(node);
        if (FindType(name) == nullptr) {
            throw std::runtime_error("there is no such type");
        }
        return name;
    }

    void ReadRule(JsonSchema& schema, const std::string& rule, const YAML::Node& node, int depth) {
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

    std::map<std::string, JsonSchema> ReadMembers(const YAML::Node& node, int depth) {
        CheckMap(node);
        std::map<std::string, JsonSchema> members;
        for (const auto& member : node) {
            CheckNew(members.emplace(Name(member.first), Read(member.second, depth + 1)).second);
        }
        return members;
    }

    int m_nodes = 0;
};

std::optional<JsonSchema> JsonSchema::Parse(const std::string& text) {
    try {
        CheckOneDocument(text);
        return JsonSchemaReader().Read(YAML::Load(text), 0);
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
