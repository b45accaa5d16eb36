#pragma once

#include <yaml-cpp/yaml.h>

#include <stdexcept>
#include <string>

#include <json/json.h>

namespace scenario {

// A scenario file that can't be taken as written; the text starts with file and line.
class LoadError : public std::runtime_error {
public:
    LoadError(const std::string& file, int line, const std::string& what)
        : std::runtime_error(file + ":" + std::to_string(line) + ": " + what) {}
};

// A node of a scenario file that knows where it stands. Nodes are only read, never assigned: in yaml-cpp an
// assignment aliases.
class YamlNode {
public:
    YamlNode(std::string file, const YAML::Node& node) : m_file(std::move(file)), m_node(node) {}

    const std::string& file() const { return m_file; }
    int line() const { return m_node.Mark().line + 1; }
    const YAML::Node& raw() const { return m_node; }

    [[noreturn]] void Fail(const std::string& what) const { throw LoadError(m_file, line(), what); }

    // The node as JSON. Plain scalars are null, booleans, integers (decimal, 0x) and reals as YAML 1.2 has
    // them; everything else, and whatever is quoted, is text. The tag !hex makes text from hexadecimal bytes.
    Json::Value ToJson() const;

    // Each fails with a clear text when the node is something else.
    std::string Text() const;
    bool Bool() const;
    int Int() const;

    void MustBeMap() const;
    void MustBeList() const;

    // Calls `visit(name, value)` for each member of a mapping, each name once, in the file's order.
    template <class Visit>
    void ForEachMember(const Visit& visit) const {
        MustBeMap();
        for (const auto& member : m_node) {
            visit(member.first.Scalar(), YamlNode(m_file, member.second));
        }
    }

    template <class Visit>
    void ForEachItem(const Visit& visit) const {
        MustBeList();
        for (const auto& item : m_node) {
            visit(YamlNode(m_file, item));
        }
    }

private:
    Json::Value ScalarToJson() const;

    std::string m_file;
    const YAML::Node m_node;
};

// The one document of the file. Fails for anchors, aliases, names used twice in a mapping, and further
// documents.
YamlNode LoadYamlFile(const std::string& file);

}  // namespace scenario
