#include "korv/system/mount_table.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace korv {

namespace {

constexpr const char* kMountTable = "/proc/self/mountinfo";

// The kernel writes blanks, backslashes and line ends as a backslash and three octal digits.
std::string Unescaped(const std::string& text) {
    constexpr std::size_t kDigits = 3;
    constexpr int kOctal = 8;
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + kDigits < text.size()) {
            plain += static_cast<char>(std::stoi(text.substr(i + 1, kDigits), nullptr, kOctal));
            i += kDigits;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

}  // namespace

std::vector<Mount> ReadMounts() {
    std::ifstream table(kMountTable);
    if (!table) {
        throw std::runtime_error("cannot read the table of mounts");
    }
    std::vector<Mount> mounts;
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string skipped;
        Mount mount;
        fields >> skipped >> skipped >> skipped >> skipped >> mount.path;
        // Optional fields end with a hyphen.
        while (fields >> skipped && skipped != "-") {
        }
        fields >> mount.fsType >> mount.source;
        mount.path = Unescaped(mount.path);
        mount.source = Unescaped(mount.source);
        mounts.push_back(std::move(mount));
    }
    return mounts;
}

std::vector<std::string> MountsAtOrBeneath(const std::vector<Mount>& mounts, const std::string& path) {
    std::vector<std::string> found;
    for (const Mount& mount : mounts) {
        if (mount.path == path || mount.path.starts_with(path + "/")) {
            found.push_back(mount.path);
        }
    }
    return found;
}

}  // namespace korv
