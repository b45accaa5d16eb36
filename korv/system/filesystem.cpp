#include "platform/korv/filesystem.h"

#include <fcntl.h>

#include <optional>
#include <string>

#include <sys/stat.h>

#include "include/trailing_slashes.h"
#include "korv/system/bounded_call.h"

namespace {

std::optional<mode_t> ModeOf(const std::string& path) {
    if (path.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    // The server itself is asked, not what this machine still knows of it.
    return korv::CallBounded(korv::kIsItThere, path, [&path] {
        struct statx status {};
        const int result = statx(AT_FDCWD, path.c_str(), AT_STATX_FORCE_SYNC, STATX_TYPE, &status);
        return result == 0 ? std::optional<mode_t>(status.stx_mode) : std::nullopt;
    });
}

}  // namespace

bool IsExistDir(const std::string& path) {
    const auto mode = ModeOf(path);
    return mode ? S_ISDIR(*mode) : korv::IsSilent(path);
}

bool IsFileExist(const std::string& path) {
    const auto mode = ModeOf(path);
    return mode && !S_ISDIR(*mode);
}

std::string GetDirPath(const std::string& path) {
    const std::size_t lastSlash = path.rfind('/');
    if (lastSlash == std::string::npos) {
        return "";
    }
    const std::size_t end = path.find_last_not_of('/', lastSlash);
    return end == std::string::npos ? "" : path.substr(0, end + 1);
}

std::string GetBaseName(const std::string& path) {
    const std::string text = WithoutTrailingSlashes(path);
    return text.substr(text.rfind('/') + 1);
}
