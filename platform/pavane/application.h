#pragma once

#include <array>
#include <map>
#include <string>

#include <json/json.h>

#include "platform/pavane/json_converter.h"

// The applications of the package that keep data in shared folders. Implemented in
// pavane/recorder/application.cpp.

// A name in several languages: language code ("enu", "ger", ...) to text.
class MultilangString {
public:
    MultilangString() = default;
    explicit MultilangString(std::map<std::string, std::string> texts) : m_texts(std::move(texts)) {}
    const std::map<std::string, std::string>& GetTexts() const { return m_texts; }

private:
    std::map<std::string, std::string> m_texts;
};

namespace PVJson {

// An object with one member per language.
template <>
struct JsonConverter<MultilangString, void> {
    static Json::Value ToJson(const MultilangString& text);
};

}  // namespace PVJson

class ApplicationTrait {
public:
    ApplicationTrait() = default;
    ApplicationTrait(MultilangString name, bool compatible, bool enabled)
        : m_name(std::move(name)), m_compatible(compatible), m_enabled(enabled) {}

    // True when the application can run with this version of the package.
    bool IsCompatible() const { return m_compatible; }
    bool IsEnabled() const { return m_enabled; }
    const MultilangString& GetName() const { return m_name; }

private:
    MultilangString m_name;
    bool m_compatible = false;
    bool m_enabled = false;
};

inline constexpr std::size_t kApplicationCount = 26;

// The applications by their id, which is the index. Read anew for each call. When it can't be read which of
// them run, each is compatible and not enabled, so that none is left out of a list, and the failure is
// logged.
std::array<ApplicationTrait, kApplicationCount> ApplicationTraits();
