#pragma once

#include <string>

namespace cli {

// The bytes behind a Base64 text with padding. Throws std::runtime_error for any other text.
std::string DecodeBase64(const std::string& text);

}  // namespace cli
