#pragma once

#include <string>

namespace pavane {

// An empty text when the application database opens and its tables can be read, else what is wrong.
std::string CheckAppDatabase();

}  // namespace pavane
