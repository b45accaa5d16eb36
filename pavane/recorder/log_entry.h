#pragma once

#include <string>
#include <string_view>

namespace pavane {

// Longest text that one entry holds, in bytes; the rest is left out and the entry says so.
inline constexpr std::size_t kLogTextLimit = 64UL * 1024;

// Where and how an entry was written; a null category or level is left out of it.
struct LogOrigin {
    const char* category;
    const char* level;
    const char* file;
    int line;
    const char* function;
};

// One line, its newline included: time (UTC, milliseconds), process id, category, level, file, line, function
// and `text`. Newlines and other control characters inside are written as escapes, so that a text can't
// forge an entry or steer a terminal; line feeds at its end are dropped. A JSON text's values under "passwd",
// "enc_passwd" and the like are written as "***".
std::string FormatLogEntry(const LogOrigin& origin, std::string_view text);

}  // namespace pavane
