#pragma once

#include <optional>
#include <string>

#include "platform/pavane/log.h"

namespace pavane {

// The category or level that `text` names: its name as Enum2String gives it, without regard to case, or its
// number in decimal. Nothing for any other text.
std::optional<LOG_CATEG> ParseLogCategory(const std::string& text);
std::optional<LOG_LEVEL> ParseLogLevel(const std::string& text);

}  // namespace pavane
