#include "pavane/store/cell.h"

#include <array>
#include <charconv>
#include <cmath>
#include <ctime>

namespace pavane {

namespace {

// Shortest text that reads back as the same number; whole numbers without a fraction.
std::string NumberText(double number) {
    constexpr double kExactLimit = 9007199254740992.0;  // 2^53: beyond it not every whole number exists
    constexpr std::size_t kLongest = 64;
    if (std::trunc(number) == number && std::fabs(number) <= kExactLimit) {
        return std::to_string(static_cast<long long>(number));
    }
    std::array<char, kLongest> text{};
    const auto written = std::to_chars(text.data(), text.data() + text.size(), number);
    return {text.data(), written.ptr};
}

std::string TimeText(const std::tm& time) {
    constexpr std::size_t kLongest = 64;
    std::array<char, kLongest> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &time);
    return {text.data(), length};
}

}  // namespace

std::optional<std::string> CellText(const soci::row& row, std::size_t column) {
    if (row.get_indicator(column) == soci::i_null) {
        return std::nullopt;
    }
    switch (row.get_properties(column).get_data_type()) {
        case soci::dt_integer:
            return std::to_string(row.get<int>(column));
        case soci::dt_long_long:
            return std::to_string(row.get<long long>(column));
        case soci::dt_unsigned_long_long:
            return std::to_string(row.get<unsigned long long>(column));
        case soci::dt_double:
            return NumberText(row.get<double>(column));
        case soci::dt_date:
            return TimeText(row.get<std::tm>(column));
        case soci::dt_string:
        case soci::dt_blob:
        case soci::dt_xml:
            break;
    }
    return row.get<std::string>(column);
}

}  // namespace pavane
