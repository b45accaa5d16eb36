#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cli {

struct CsvRow {
    int line = 0;  // where it begins in the file, from 1 on
    std::vector<std::string> fields;
};

// The rows of a comma-separated text: fields may be quoted, a quote inside is doubled, a quoted field may
// hold commas and line ends. Lines end with LF or CRLF; empty lines are left out. Throws InputError
// (cli/input_error.h) that names the line for a quote that is not closed or stands where none may.
std::vector<CsvRow> ParseCsv(std::string_view text);

}  // namespace cli
