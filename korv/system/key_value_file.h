#pragma once

#include <map>
#include <optional>
#include <string>

// Files of lines key=value (platform/korv/key_value_file.h).
namespace korv {

using KeyValues = std::map<std::string, std::string>;

// Lines that are no such pair are passed over.
KeyValues ParseKeyValues(const std::string& text);

// Values stand between double quotes. A key with a blank, a quote or "=" in it, or a line end anywhere, is
// refused with std::invalid_argument.
std::string KeyValueText(const KeyValues& values);

// The pairs of the regular file `path`, a megabyte at most; nothing when it can't be read. In a folder where
// anybody may make files, as /tmp, only one of root's, this process's or the service user's counts, and no
// link.
std::optional<KeyValues> ReadKeyValues(const std::string& path);

// Replaces the file in one step, readable for everybody; throws std::system_error. In a folder that others
// can write into, too: what they put in its place is replaced, links as such, and a folder is moved aside
// with what is in it, which the log says. What they mounted there is unmounted.
void WriteKeyValues(const std::string& path, const KeyValues& values);

}  // namespace korv
