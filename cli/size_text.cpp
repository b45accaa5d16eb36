#include "cli/size_text.h"

#include <array>
#include <cstdio>

namespace cli {

std::string SizeText(const Json::Value& size_mb) {
    constexpr double kStep = 1024;
    constexpr std::array<const char*, 3> kLargerUnits{"GB", "TB", "PB"};
    if (!size_mb.isNumeric() || size_mb.asDouble() < 0) {
        return "";
    }
    double size = size_mb.asDouble();
    std::array<char, 32> text{};
    if (size < kStep) {
        std::snprintf(text.data(), text.size(), "%.0f MB", size);
        return text.data();
    }
    std::size_t unit = 0;
    size /= kStep;
    // 1023.96 would be written as 1024.0.
    constexpr double kRoundsUp = 1023.95;
    while (size >= kRoundsUp && unit + 1 < kLargerUnits.size()) {
        size /= kStep;
        ++unit;
    }
    std::snprintf(text.data(), text.size(), "%.1f %s", size, kLargerUnits[unit]);
    return text.data();
}

std::string FreeText(const Json::Value& size_mb) {
    constexpr Json::LargestUInt kFirstNegative = 1UL << 31U;
    const bool isUnknown = size_mb.isUInt() && size_mb.asUInt() >= kFirstNegative;
    return isUnknown ? "unknown" : SizeText(size_mb);
}

}  // namespace cli
