#include "korv/system/external_share.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "include/run_as_scope.h"
#include "korv/system/external_disk_register.h"

namespace korv {

namespace {

constexpr std::array<const char*, 2> kStems{"usbshare", "satashare"};
constexpr const char* kDigits = "0123456789";
constexpr std::size_t kDiskDigits = 4;
constexpr std::size_t kPartitionDigits = 3;

// Where the number that begins at `begin` ends; `begin` itself when none of at most `digits` digits is there.
std::size_t NumberEnd(const std::string& text, std::size_t begin, std::size_t digits) {
    const std::size_t end = std::min(text.find_first_not_of(kDigits, begin), text.size());
    return end - begin <= digits ? end : begin;
}

// "2" or "2-1".
bool IsNumbers(const std::string& text) {
    const std::size_t disk = NumberEnd(text, 0, kDiskDigits);
    if (disk == 0 || disk == text.size()) {
        return disk != 0;
    }
    const std::size_t partition = NumberEnd(text, disk + 1, kPartitionDigits);
    return text[disk] == '-' && partition > disk + 1 && partition == text.size();
}

// Only such a disk is asked for its partitions: another may be slow.
bool MayCarry(const ExternalDisk& disk, const std::string& name) {
    const std::string stem = ShareStem(disk);
    return strncasecmp(name.c_str(), stem.c_str(), stem.size()) == 0 &&
           (name.size() == stem.size() || name[stem.size()] == '-');
}

}  // namespace

bool IsExternalShareName(const std::string& name) {
    return std::any_of(kStems.begin(), kStems.end(), [&name](const char* stem) {
        const std::size_t length = std::strlen(stem);
        return name.size() > length && strncasecmp(name.c_str(), stem, length) == 0 &&
               IsNumbers(name.substr(length));
    });
}

std::optional<std::string> ExternalSharePath(const std::string& name) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        throw std::runtime_error("external disks can't be looked at without root");
    }
    const auto isWanted = [&name](const ExternalPartition& partition) {
        return strcasecmp(partition.shareName.c_str(), name.c_str()) == 0;
    };
    for (ExternalDisk& disk : ListExternalDisks()) {
        if (!MayCarry(disk, name)) {
            continue;
        }
        ReadPartitions(disk);
        const auto found = std::find_if(disk.partitions.begin(), disk.partitions.end(), isWanted);
        if (found != disk.partitions.end()) {
            return found->mountPath;
        }
    }
    return std::nullopt;
}

}  // namespace korv
