#include "cli/whole_number.h"

#include <charconv>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

namespace cli {

namespace {

CLI::Validator Decimal(int least, int most, const std::string& description) {
    const auto normalize = [least, most](std::string& text) -> std::string {
        int number = 0;
        const bool isDecimal = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
        if (!isDecimal || std::from_chars(text.data(), text.data() + text.size(), number).ec != std::errc() ||
            number < least || number > most) {
            return "'" + text + "' is no whole number from " + std::to_string(least) + " to " +
                   std::to_string(most);
        }
        text = std::to_string(number);
        return "";
    };
    return {normalize, description};
}

}  // namespace

CLI::Validator WholeNumber(int least, int most) {
    return Decimal(least, most, std::to_string(least) + " to " + std::to_string(most));
}

CLI::Validator Id() { return Decimal(0, kMostNumber, ""); }

}  // namespace cli
