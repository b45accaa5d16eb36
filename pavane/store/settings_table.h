#pragma once

#include <string>

namespace pavane {

// The setting `name` of the application, or `fallback` when it was never set. Throws
// (pavane/store/database.h).
std::string GetSetting(const std::string& name, const std::string& fallback);

// Sets it, replacing what was there. Throws.
void SetSetting(const std::string& name, const std::string& value);

}  // namespace pavane
