#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace pavane {

// The statements of an SQL text that are separated by ";", in order, without the ";" and without those that
// hold nothing but blanks and comments. A ";" inside quotes or a comment separates nothing.
std::vector<std::string> SplitStatements(std::string_view text);

}  // namespace pavane
