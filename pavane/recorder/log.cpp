#include "platform/pavane/log.h"

#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

#include "platform/korv/configuration.h"

#include "pavane/recorder/log_entry.h"
#include "pavane/recorder/log_file.h"

namespace {

constexpr const char* kLogName = "/pavane.log";

std::string FormatText(const char* format, va_list arguments) {
    std::array<char, 1024> small{};
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(small.data(), small.size(), format, arguments);
    std::string text;
    if (length >= 0 && static_cast<std::size_t>(length) < small.size()) {
        text.assign(small.data(), static_cast<std::size_t>(length));
    } else if (length >= 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.resize(static_cast<std::size_t>(length));
    }
    va_end(again);
    return text;
}

// A process without a readable configuration has no log folder; what it says goes to its standard error.
bool WriteToLogFile(const std::string& entry) {
    try {
        static pavane::LogFile file(KORV::GetConfiguration().logDir + kLogName);
        return file.Write(entry);
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

void PVPrintf(LOG_TYPE /*type*/, const char* category, const char* level, const char* file, int line,
              const char* function, const char* format, ...) {
    try {
        va_list arguments;
        va_start(arguments, format);
        const std::string text = FormatText(format, arguments);
        va_end(arguments);
        const std::string entry = pavane::FormatLogEntry({category, level, file, line, function}, text);
        if (!WriteToLogFile(entry) && write(STDERR_FILENO, entry.data(), entry.size()) < 0) {
            return;  // lost: there is nobody left to tell
        }
    } catch (const std::exception&) {
        return;  // out of memory: lost likewise
    }
}
