#include "tests/scenarios/yaml_file.h"

#include <yaml-cpp/eventhandler.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

namespace scenario {

namespace {

// Refuses what would let a case say something that doesn't stand in it.
class PlainnessCheck : public YAML::EventHandler {
public:
    explicit PlainnessCheck(const std::string& file) : m_file(file) {}

    void OnDocumentStart(const YAML::Mark&) override {}
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override { Check(mark, anchor); }
    void OnAlias(const YAML::Mark& mark, YAML::anchor_t) override { Check(mark, 1); }
    void OnScalar(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                  const std::string&) override {
        Check(mark, anchor);
    }
    void OnSequenceStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value) override {
        Check(mark, anchor);
    }
    void OnSequenceEnd() override {}
    void OnMapStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value) override {
        Check(mark, anchor);
    }
    void OnMapEnd() override {}

private:
    void Check(const YAML::Mark& mark, YAML::anchor_t anchor) const {
        if (anchor != 0) {
            throw LoadError(m_file, mark.line + 1, "anchors and aliases are not part of the format");
        }
    }

    const std::string& m_file;
};

void CheckPlainness(const std::string& file, const std::string& text) {
    std::istringstream in(text);
    YAML::Parser parser(in);
    PlainnessCheck check(file);
    parser.HandleNextDocument(check);
    if (parser.HandleNextDocument(check)) {
        throw LoadError(file, 1, "holds more than one document");
    }
}

void CheckNamesOnce(const std::string& file, const YAML::Node& node) {
    std::set<std::string> names;
    for (const auto& item : node) {
        if (node.IsMap()) {
            if (!item.first.IsScalar() || !names.insert(item.first.Scalar()).second) {
                throw LoadError(file, item.first.Mark().line + 1,
                                item.first.IsScalar() ? "'" + item.first.Scalar() + "' stands here twice"
                                                      : "a name must be text");
            }
            CheckNamesOnce(file, item.second);
        } else {
            CheckNamesOnce(file, item);
        }
    }
}

bool IsDigit(char character) { return std::isdigit(static_cast<unsigned char>(character)) != 0; }
bool IsHexDigit(char character) { return std::isxdigit(static_cast<unsigned char>(character)) != 0; }

bool IsAll(std::string_view text, bool (*fits)(char)) { return std::all_of(text.begin(), text.end(), fits); }

std::string_view WithoutSign(std::string_view text) {
    return text.empty() || (text[0] != '-' && text[0] != '+') ? text : text.substr(1);
}

bool IsInteger(std::string_view text) {
    if (text.rfind("0x", 0) == 0) {
        return text.size() > 2 && IsAll(text.substr(2), IsHexDigit);
    }
    const std::string_view digits = WithoutSign(text);
    return !digits.empty() && IsAll(digits, IsDigit);
}

// A number with a point or an exponent; nothing for any other text.
std::optional<double> ToReal(std::string_view text) {
    const std::string_view number = WithoutSign(text);
    if (number.empty() || !IsDigit(number[0]) || number.find_first_of(".eE") == std::string_view::npos) {
        return std::nullopt;
    }
    double value = 0;
    const auto [end, error] = std::from_chars(number.begin(), number.end(), value);
    if (error != std::errc() || end != number.end()) {
        return std::nullopt;
    }
    return text[0] == '-' ? -value : value;
}

Json::Value IntegerToJson(const std::string& text, const YamlNode& node) {
    const bool negative = text[0] == '-';
    const bool hex = text.rfind("0x", 0) == 0;
    const char* begin = text.data() + (negative || text[0] == '+' ? 1 : 0) + (hex ? 2 : 0);
    const char* end = text.data() + text.size();
    std::uint64_t magnitude = 0;
    const auto [parsed, error] = std::from_chars(begin, end, magnitude, hex ? 16 : 10);
    const std::uint64_t most = std::uint64_t{1} << 63;
    if (error != std::errc() || parsed != end || (negative && magnitude > most)) {
        node.Fail("'" + text + "' doesn't fit 64 bits");
    }
    if (negative) {
        return Json::Value(static_cast<Json::Int64>(0 - magnitude));
    }
    return magnitude < most ? Json::Value(static_cast<Json::Int64>(magnitude))
                            : Json::Value(Json::UInt64{magnitude});
}

Json::Value HexToJson(const std::string& text, const YamlNode& node) {
    if (text.size() % 2 != 0 || !IsAll(text, IsHexDigit)) {
        node.Fail("!hex takes pairs of hexadecimal digits");
    }
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

}  // namespace

YamlNode LoadYamlFile(const std::string& file) {
    std::ifstream in(file);
    if (!in) {
        throw LoadError(file, 1, "can't be read");
    }
    std::ostringstream text;
    text << in.rdbuf();
    try {
        CheckPlainness(file, text.str());
        YamlNode root(file, YAML::Load(text.str()));
        root.MustBeMap();
        CheckNamesOnce(file, root.raw());
        return root;
    } catch (const YAML::Exception& error) {
        throw LoadError(file, error.mark.line + 1, error.msg);
    }
}

Json::Value YamlNode::ScalarToJson() const {
    const std::string& text = m_node.Scalar();
    const std::string& tag = m_node.Tag();
    if (tag == "!hex") {
        return HexToJson(text, *this);
    }
    if (tag == "!") {  // quoted
        return text;
    }
    if (!tag.empty() && tag != "?") {
        Fail("unknown tag " + tag);
    }
    if (text == "true" || text == "false") {
        return text == "true";
    }
    if (IsInteger(text)) {
        return IntegerToJson(text, *this);
    }
    if (const std::optional<double> real = ToReal(text)) {
        return *real;
    }
    return text;
}

Json::Value YamlNode::ToJson() const {
    Json::Value value;
    switch (m_node.Type()) {
        case YAML::NodeType::Map:
            value = Json::objectValue;
            ForEachMember(
                [&value](const std::string& name, const YamlNode& member) { value[name] = member.ToJson(); });
            return value;
        case YAML::NodeType::Sequence:
            value = Json::arrayValue;
            ForEachItem([&value](const YamlNode& item) { value.append(item.ToJson()); });
            return value;
        case YAML::NodeType::Scalar:
            return ScalarToJson();
        default:
            return value;
    }
}

std::string YamlNode::Text() const {
    const Json::Value value = ToJson();
    if (!value.isString()) {
        Fail("must be a text (put it in quotes if it looks like something else)");
    }
    return value.asString();
}

bool YamlNode::Bool() const {
    const Json::Value value = ToJson();
    if (!value.isBool()) {
        Fail("must be true or false");
    }
    return value.asBool();
}

int YamlNode::Int() const {
    const Json::Value value = ToJson();
    if (value.type() != Json::intValue || !value.isInt()) {
        Fail("must be a whole number of 32 bits");
    }
    return value.asInt();
}

void YamlNode::MustBeMap() const {
    if (!m_node.IsMap()) {
        Fail("must be a mapping");
    }
}

void YamlNode::MustBeList() const {
    if (!m_node.IsSequence()) {
        Fail("must be a list");
    }
}

}  // namespace scenario
