#include "tests/scenarios/compare.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace scenario {

namespace {

std::string Real(double number) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", number);
    const std::string written = text;
    return written.find_first_of(".en") == std::string::npos ? written + ".0" : written;
}

// Every byte shows: control characters as \xNN, all others as they are.
std::string Quoted(const std::string& text) {
    constexpr unsigned char kFirstPrintable = 0x20;
    std::string quoted = "\"";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < kFirstPrintable && character != '\n') {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            quoted += escape;
        } else if (character == '\n') {
            quoted += "\\n";
        } else {
            quoted += (character == '"' || character == '\\' ? "\\" : "") + std::string(1, character);
        }
    }
    return quoted + "\"";
}

std::string Scalar(const Json::Value& value) {
    switch (value.type()) {
        case Json::realValue:
            return Real(value.asDouble());
        case Json::stringValue:
            return Quoted(value.asString());
        case Json::objectValue:
            return "{}";
        case Json::arrayValue:
            return "[]";
        default:
            return value.isNull() ? "null" : value.asString();
    }
}

void Write(const Json::Value& value, const std::string& lineBreak, const std::string& step,
           std::string& text) {
    if ((!value.isObject() && !value.isArray()) || value.empty()) {
        text += Scalar(value);
        return;
    }
    text += value.isObject() ? "{" : "[";
    bool first = true;
    for (auto member = value.begin(); member != value.end(); ++member) {
        text += (first ? "" : (lineBreak.empty() ? ", " : ",")) + (lineBreak.empty() ? "" : lineBreak + step);
        first = false;
        if (value.isObject()) {
            text += Scalar(member.name()) + ": ";
        }
        Write(*member, lineBreak.empty() ? "" : lineBreak + step, step, text);
    }
    text += lineBreak + (value.isObject() ? "}" : "]");
}

using Table = std::vector<std::vector<std::size_t>>;

// Lengths of the longest common subsequences of all tails.
Table CommonTails(const std::vector<std::string>& left, const std::vector<std::string>& right) {
    Table length(left.size() + 1, std::vector<std::size_t>(right.size() + 1, 0));
    for (std::size_t i = left.size(); i-- > 0;) {
        for (std::size_t j = right.size(); j-- > 0;) {
            length[i][j] =
                left[i] == right[j] ? length[i + 1][j + 1] + 1 : std::max(length[i + 1][j], length[i][j + 1]);
        }
    }
    return length;
}

}  // namespace

std::string OneLine(const Json::Value& value) {
    std::string text;
    Write(value, "", "", text);
    return text;
}

std::vector<std::string> ManyLines(const Json::Value& value) {
    std::string text;
    Write(value, "\n", "  ", text);
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string Difference(const std::string& what, const std::vector<std::string>& expected,
                       const std::vector<std::string>& actual) {
    if (expected == actual) {
        return "";
    }
    const Table common = CommonTails(expected, actual);
    std::string text = what + " ('-' expected, '+' got):\n";
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < expected.size() || j < actual.size()) {
        if (i < expected.size() && j < actual.size() && expected[i] == actual[j]) {
            text += "    " + expected[i] + "\n";
            ++i;
            ++j;
        } else if (j == actual.size() || (i < expected.size() && common[i + 1][j] >= common[i][j + 1])) {
            text += "  - " + expected[i++] + "\n";
        } else {
            text += "  + " + actual[j++] + "\n";
        }
    }
    return text;
}

}  // namespace scenario
