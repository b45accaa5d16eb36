#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <soci/soci.h>

namespace pavane {

// A cell as text whatever type the back end gave it: whole numbers in decimal (also those that come as a
// floating-point number, as sums do), booleans as 1 or 0, times as "YYYY-MM-DD hh:mm:ss". Nothing for null.
std::optional<std::string> CellText(const soci::row& row, std::size_t column);

}  // namespace pavane
