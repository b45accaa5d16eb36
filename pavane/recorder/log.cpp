#include "platform/pavane/log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "platform/korv/configuration.h"

#include "pavane/recorder/log_entry.h"
#include "pavane/recorder/log_file.h"

namespace {

constexpr const char* kLogName = "/pavane.log";

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

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
        char* raw = nullptr;
        va_list arguments;
        va_start(arguments, format);
        const int length = vasprintf(&raw, format, arguments);
        va_end(arguments);
        const std::unique_ptr<char, FreeText> text(length >= 0 ? raw : nullptr);
        const std::string entry = pavane::FormatLogEntry(
            {category, level, file, line, function},
            text != nullptr ? std::string_view(text.get(), static_cast<std::size_t>(length))
                            : std::string_view());
        if (!WriteToLogFile(entry) && write(STDERR_FILENO, entry.data(), entry.size()) < 0) {
            return;  // lost: there is nobody left to tell
        }
    } catch (const std::exception&) {
        return;  // out of memory: lost likewise
    }
}
