#pragma once

#include <string>

#include <json/json.h>

namespace cli {

// A size as people read it, from one in MB: "0 MB", "999 MB", "1.5 GB", "2.0 TB". A value that is no number,
// or below 0, gives "".
std::string SizeText(const Json::Value& size_mb);

// The same of a folder's free space; "unknown" for what the server sends in place of a size that it could not
// tell: a negative number cut to 32 bits, 2147483648 or more.
std::string FreeText(const Json::Value& size_mb);

}  // namespace cli
