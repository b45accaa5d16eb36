#include "webapi/share/mount_point_path.h"

namespace {

constexpr const char* kSeparators = "/\\";
constexpr std::string::size_type kFirstSearched = 1;

}  // namespace

int GetVolumeNameFromPath(const std::string& path, std::string& name) {
    const auto end = path.find_first_of(kSeparators, kFirstSearched);
    if (end == std::string::npos) {
        return -1;
    }
    name = path.substr(kFirstSearched, end - kFirstSearched);
    return 0;
}

int GetShareNameFromPath(const std::string& path, std::string& name) {
    const auto first = path.find_first_of(kSeparators, kFirstSearched);
    if (first == std::string::npos) {
        return -1;
    }
    const auto second = path.find_first_of(kSeparators, first + 1);
    if (second == std::string::npos) {
        return -1;
    }
    name = path.substr(first + 1, second - first - 1);
    return 0;
}
