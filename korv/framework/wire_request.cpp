#include "korv/framework/wire_request.h"

#include <memory>

#include "korv/framework/json_text.h"

namespace korv {
namespace {

constexpr int kMaxDepth = 64;
constexpr std::string_view kUploadSuffix = "_file_tmp";

std::string_view View(const char* begin, const char* end) {
    return {begin, static_cast<std::size_t>(end - begin)};
}

// The parser lets through NUL and single surrogates written as escapes, and bytes that are no UTF-8.
bool HasCleanTexts(const Json::Value& value) {
    if (value.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        return !value.getString(&begin, &end) || IsCleanText(View(begin, end));
    }
    if (!value.isArray() && !value.isObject()) {
        return true;
    }
    for (auto element = value.begin(); element != value.end(); ++element) {
        const char* nameEnd = nullptr;
        const char* const name = value.isObject() ? element.memberName(&nameEnd) : nullptr;
        if ((name != nullptr && !IsCleanText(View(name, nameEnd))) || !HasCleanTexts(*element)) {
            return false;
        }
    }
    return true;
}

std::optional<Json::Value> ParseObject(std::string_view text) {
    static const std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        builder["stackLimit"] = kMaxDepth;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    Json::Value value;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
            return std::nullopt;
        }
    } catch (const Json::Exception&) {  // nested too deeply
        return std::nullopt;
    }
    if (!value.isObject() || !HasCleanTexts(value)) {
        return std::nullopt;
    }
    return value;
}

bool TakeText(Json::Value& object, const char* name, std::string& text) {
    Json::Value value;
    if (!object.removeMember(name, &value) || !value.isString()) {
        return false;
    }
    text = value.asString();
    return true;
}

bool TakeInt(Json::Value& object, const char* name, int& number) {
    Json::Value value;
    if (!object.removeMember(name, &value) || !value.isInt() || value.type() == Json::realValue) {
        return false;
    }
    number = value.asInt();
    return true;
}

std::string_view Trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

bool IsUploadName(std::string_view name) { return name.ends_with(kUploadSuffix); }

std::optional<WireRequest> ParseWireRequest(std::string_view text) {
    std::optional<Json::Value> object = ParseObject(text);
    WireRequest request;
    if (!object || !TakeText(*object, "api", request.api) || !TakeText(*object, "method", request.method) ||
        !TakeInt(*object, "version", request.version)) {
        return std::nullopt;
    }
    for (auto member = object->begin(); member != object->end(); ++member) {
        const char* nameEnd = nullptr;
        const char* const name = member.memberName(&nameEnd);
        if (IsUploadName(View(name, nameEnd))) {
            return std::nullopt;
        }
    }
    request.params.swap(*object);
    return request;
}

std::map<std::string, std::string> ParseCookies(std::string_view header) {
    std::map<std::string, std::string> cookies;
    while (!header.empty()) {
        const std::size_t end = std::min(header.find(';'), header.size());
        const std::string_view pair = header.substr(0, end);
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos) {
            cookies.emplace(Trimmed(pair.substr(0, equals)), Trimmed(pair.substr(equals + 1)));
        }
        header.remove_prefix(std::min(end + 1, header.size()));
    }
    return cookies;
}

}  // namespace korv
