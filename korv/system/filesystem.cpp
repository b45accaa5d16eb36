#include "platform/korv/filesystem.h"

#include <string>

#include <sys/stat.h>

bool IsExistDir(const std::string& path) {
    if (path.find('\0') != std::string::npos) {
        return false;
    }
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string GetDirPath(const std::string& path) {
    const std::size_t lastSlash = path.rfind('/');
    if (lastSlash == std::string::npos) {
        return "";
    }
    const std::size_t end = path.find_last_not_of('/', lastSlash);
    return end == std::string::npos ? "" : path.substr(0, end + 1);
}
