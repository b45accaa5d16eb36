#pragma once

#include <string>

// Reads one key of a text file of lines `key=value` (platform/korv/key_value_file.h). Implemented in
// pavane/recorder/key_value_file.cpp.
//   value  out: the value without its quotes; unchanged when there is none or an empty one
// The value's length in bytes; below 1 when the key is missing, empty, or the file can't be read.
int PVFileGetVal(const std::string& path, const std::string& key, std::string& value);
