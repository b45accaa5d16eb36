#include "platform/korv/filesystem.h"

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
    return korv::CallBounded(korv::kIsItThere, path, [&path] {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? std::optional(status.st_mode) : std::nullopt;
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
