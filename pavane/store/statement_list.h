#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace pavane {

// The statements of an SQL text that are separated by ";", in order, without the ";" and without those that
// hold nothing but blanks and comments. A ";" inside quotes or a comment separates nothing.
std::vector<std::string> SplitStatements(std::string_view text);

// `statement`, one of SplitStatements, so that PostgreSQL takes a backslash in a quoted pattern of LIKE for
// itself, as SQLite does, and not for the mark of the character behind it. A pattern with an escape clause of
// its own stays as it is. An index serves the result as it serves the statement.
std::string WithPlainBackslashes(std::string_view statement);

}  // namespace pavane
