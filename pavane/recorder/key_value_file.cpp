#include "platform/pavane/key_value_file.h"

#include <array>

#include <linux/limits.h>

#include "platform/korv/key_value_file.h"

int PVFileGetVal(const std::string& path, const std::string& key, std::string& value) {
    std::array<char, PATH_MAX + 1> found{};
    const int length = KLIBCFileGetKeyValue(path.c_str(), key.c_str(), found.data(), found.size(), 0);
    if (length > 0) {
        value.assign(found.data(), static_cast<std::size_t>(length));
    }
    return length;
}
