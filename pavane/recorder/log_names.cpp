#include "pavane/recorder/log_names.h"

#include <strings.h>

#include <charconv>
#include <map>

namespace {

constexpr const char* kUnknown = "unknown";

const std::map<LOG_CATEG, const char*>& CategoryNames() {
    static const std::map<LOG_CATEG, const char*> names = {
        {LOG_CATEG_CMS, "CMS"},
        {LOG_CATEG_SHARE, "SHARE"},
    };
    return names;
}

const std::map<LOG_LEVEL, const char*>& LevelNames() {
    static const std::map<LOG_LEVEL, const char*> names = {
        {LOG_LEVEL_NONE, "NONE"},     {LOG_LEVEL_ERR, "ERR"},   {LOG_LEVEL_WARN, "WARN"},
        {LOG_LEVEL_NOTICE, "NOTICE"}, {LOG_LEVEL_INFO, "INFO"}, {LOG_LEVEL_DEBUG, "DEBUG"},
        {LOG_LEVEL_TRACE, "TRACE"},
    };
    return names;
}

template <class Enumeration>
const char* NameOf(const std::map<Enumeration, const char*>& names, Enumeration value) {
    const auto found = names.find(value);
    return found != names.end() ? found->second : kUnknown;
}

template <class Enumeration>
std::optional<Enumeration> Parse(const std::map<Enumeration, const char*>& names, const std::string& text,
                                 int limit) {
    for (const auto& [value, name] : names) {
        if (strcasecmp(name, text.c_str()) == 0) {
            return value;
        }
    }
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end || number < 0 || number >= limit) {
        return std::nullopt;
    }
    return static_cast<Enumeration>(number);
}

}  // namespace

template <>
const char* Enum2String<LOG_CATEG>(LOG_CATEG value) {
    return NameOf(CategoryNames(), value);
}

template <>
const char* Enum2String<LOG_LEVEL>(LOG_LEVEL value) {
    return NameOf(LevelNames(), value);
}

namespace pavane {

std::optional<LOG_CATEG> ParseLogCategory(const std::string& text) {
    return Parse(CategoryNames(), text, LOG_CATEG_COUNT);
}

std::optional<LOG_LEVEL> ParseLogLevel(const std::string& text) {
    return Parse(LevelNames(), text, LOG_LEVEL_TRACE + 1);
}

}  // namespace pavane
