#include "korv/framework/json_text.h"

#include <charconv>
#include <cmath>
#include <cstdint>

namespace korv {
namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD

template <class Number>
void AppendNumber(std::string& text, Number number) {
    constexpr std::size_t kLongest = 32;  // the longest shortest form of a double has 24 characters
    char digits[kLongest];
    const auto result = std::to_chars(digits, digits + kLongest, number);
    text.append(digits, result.ptr);
}

// A whole number keeps a fraction, so that readers see a real.
void AppendReal(std::string& text, double number) {
    if (!std::isfinite(number)) {
        text += "null";
        return;
    }
    const std::size_t start = text.size();
    AppendNumber(text, number);
    if (text.find_first_of(".e", start) == std::string::npos) {
        text += ".0";
    }
}

void AppendEscaped(std::string& text, unsigned char byte) {
    constexpr const char* kHex = "0123456789abcdef";
    switch (byte) {
        case '"':
            text += "\\\"";
            break;
        case '\\':
            text += "\\\\";
            break;
        case '\n':
            text += "\\n";
            break;
        case '\r':
            text += "\\r";
            break;
        case '\t':
            text += "\\t";
            break;
        default:
            text += "\\u00";
            text += kHex[byte >> 4U];
            text += kHex[byte & 0xFU];
    }
}

void AppendArray(std::string& text, const Json::Value& value) {
    char separator = '[';
    for (const Json::Value& element : value) {
        text += separator;
        AppendJson(text, element);
        separator = ',';
    }
    text += separator == '[' ? "[]" : "]";
}

void AppendObject(std::string& text, const Json::Value& value) {
    char separator = '{';
    for (auto member = value.begin(); member != value.end(); ++member) {
        text += separator;
        const char* nameEnd = nullptr;
        const char* const name = member.memberName(&nameEnd);
        AppendJsonString(text, name, nameEnd);
        text += ':';
        AppendJson(text, *member);
        separator = ',';
    }
    text += separator == '{' ? "{}" : "}";
}

void AppendText(std::string& text, const Json::Value& value) {
    const char* begin = nullptr;
    const char* end = nullptr;
    if (value.getString(&begin, &end)) {
        AppendJsonString(text, begin, end);
    } else {
        text += "\"\"";
    }
}

}  // namespace

std::size_t Utf8Length(const char* at, const char* end) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(at[index]); };
    const auto left = static_cast<std::size_t>(end - at);
    const unsigned char first = byte(0);
    std::size_t length = 0;
    unsigned char least = 0x80;  // bounds of the second byte
    unsigned char most = 0xBF;
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        least = first == 0xE0 ? 0xA0 : 0x80;
        most = first == 0xED ? 0x9F : 0xBF;
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        least = first == 0xF0 ? 0x90 : 0x80;
        most = first == 0xF4 ? 0x8F : 0xBF;
    }
    if (length == 0 || left < length || byte(1) < least || byte(1) > most) {
        return 0;
    }
    for (std::size_t index = 2; index < length; ++index) {
        if ((byte(index) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    return length;
}

bool IsCleanText(std::string_view text) {
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end) {
        const std::size_t length = *at == '\0' ? 0 : Utf8Length(at, end);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

void AppendJsonString(std::string& text, const char* begin, const char* end) {
    text += '"';
    const char* run = begin;  // start of what is copied unchanged
    const char* at = begin;
    while (at != end) {
        const auto byte = static_cast<unsigned char>(*at);
        if (byte >= ' ' && byte < 0x80 && byte != '"' && byte != '\\') {
            ++at;
            continue;
        }
        const std::size_t length = byte < 0x80 ? 0 : Utf8Length(at, end);
        if (length != 0) {
            at += length;
            continue;
        }
        text.append(run, at);
        if (byte < 0x80) {
            AppendEscaped(text, byte);
        } else {
            text += kReplacement;
        }
        run = ++at;
    }
    text.append(run, end);
    text += '"';
}

void AppendJson(std::string& text, const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            text += "null";
            break;
        case Json::booleanValue:
            text += value.asBool() ? "true" : "false";
            break;
        case Json::intValue:
            AppendNumber(text, value.asInt64());
            break;
        case Json::uintValue:
            AppendNumber(text, value.asUInt64());
            break;
        case Json::realValue:
            AppendReal(text, value.asDouble());
            break;
        case Json::stringValue:
            AppendText(text, value);
            break;
        case Json::arrayValue:
            AppendArray(text, value);
            break;
        case Json::objectValue:
            AppendObject(text, value);
            break;
    }
}

}  // namespace korv
