#include "korv/system/btrfs_quota.h"

#include <btrfsutil.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>

namespace korv {

namespace {

// A quota group's id: its level in the upper 16 bits; level 0 groups are the subvolumes themselves.
using GroupId = std::uint64_t;
constexpr unsigned kLevelShift = 48;
constexpr GroupId kNumberMask = (GroupId{1} << kLevelShift) - 1;

// What the kernel keeps about one group, as it stands now: its tree on the disk is brought up to date only
// with each commit, which may be half a minute late.
constexpr const char* kKernelFolder = "/sys/fs/btrfs/";

[[noreturn]] void Fail(int error, const char* what) {
    throw std::system_error(error, std::generic_category(), what);
}

std::string UuidText(const std::uint8_t* id) {
    constexpr std::size_t kIdBytes = 16;
    constexpr std::array<std::size_t, 4> kDashBefore{4, 6, 8, 10};
    std::string text;
    for (std::size_t i = 0; i < kIdBytes; ++i) {
        std::array<char, 3> digits{};
        snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned>(id[i]));
        const bool isDash = std::find(kDashBefore.begin(), kDashBefore.end(), i) != kDashBefore.end();
        text += (isDash ? "-" : "") + std::string(digits.data());
    }
    return text;
}

std::string GroupsFolder(int folder) {
    btrfs_ioctl_fs_info_args info{};
    if (ioctl(folder, BTRFS_IOC_FS_INFO, &info) != 0) {
        Fail(errno, "cannot ask a Btrfs file system for its id");
    }
    return kKernelFolder + UuidText(info.fsid) + "/qgroups/";
}

// The groups that `group` was put into directly. A relation stands in the tree in both directions; what a
// group is put into is always of a higher level.
std::vector<GroupId> ParentsOf(int folder, GroupId group) {
    btrfs_ioctl_search_args search{};
    btrfs_ioctl_search_key& key = search.key;
    key.tree_id = BTRFS_QUOTA_TREE_OBJECTID;
    key.min_objectid = key.max_objectid = group;
    key.min_type = key.max_type = BTRFS_QGROUP_RELATION_KEY;
    key.min_offset = group | kNumberMask;
    key.max_offset = key.max_transid = ~std::uint64_t{0};
    std::vector<GroupId> parents;
    do {
        key.nr_items = ~std::uint32_t{0};
        if (ioctl(folder, BTRFS_IOC_TREE_SEARCH, &search) != 0) {
            Fail(errno, "cannot read the quota groups of a Btrfs file system");
        }
        const char* at = search.buf;
        for (std::uint32_t i = 0; i < key.nr_items; ++i) {
            btrfs_ioctl_search_header header{};
            std::memcpy(&header, at, sizeof(header));
            parents.push_back(header.offset);
            at += sizeof(header) + header.len;
            key.min_offset = header.offset + 1;
        }
    } while (key.nr_items != 0 && key.min_offset != 0);  // one answer holds only so many
    return parents;
}

std::uint64_t ReadNumber(const std::string& file) {
    std::uint64_t number = 0;
    if (!(std::ifstream(file) >> number)) {
        Fail(EIO, "cannot read a figure of a Btrfs quota group");
    }
    return number;
}

// Kernels let people destroy the group of a subvolume that lives on; nothing limits it then.
bool IsGone(const std::string& groupFolder) {
    return access(groupFolder.c_str(), F_OK) != 0 && errno == ENOENT;
}

std::uint64_t RestOf(std::uint64_t limit, std::uint64_t used) { return limit > used ? limit - used : 0; }

// As the kernel judges a write: what is used and what is promised must stay within the limit.
std::optional<std::uint64_t> RestOfGroup(const std::string& groupsFolder, GroupId group) {
    const std::string folder =
        groupsFolder + std::to_string(group >> kLevelShift) + "_" + std::to_string(group & kNumberMask) + "/";
    if (IsGone(folder)) {
        return std::nullopt;
    }
    const std::uint64_t limits = ReadNumber(folder + "limit_flags");
    if ((limits & (BTRFS_QGROUP_LIMIT_MAX_RFER | BTRFS_QGROUP_LIMIT_MAX_EXCL)) == 0) {
        return std::nullopt;
    }
    const std::uint64_t promised = ReadNumber(folder + "rsv_data") +
                                   ReadNumber(folder + "rsv_meta_pertrans") +
                                   ReadNumber(folder + "rsv_meta_prealloc");
    std::uint64_t rest = ~std::uint64_t{0};
    if ((limits & BTRFS_QGROUP_LIMIT_MAX_RFER) != 0) {
        rest = RestOf(ReadNumber(folder + "max_referenced"), ReadNumber(folder + "referenced") + promised);
    }
    if ((limits & BTRFS_QGROUP_LIMIT_MAX_EXCL) != 0) {
        rest = std::min(
            rest, RestOf(ReadNumber(folder + "max_exclusive"), ReadNumber(folder + "exclusive") + promised));
    }
    return rest;
}

bool IsQuotaOn(const std::string& groupsFolder) {
    int enabled = 0;
    return static_cast<bool>(std::ifstream(groupsFolder + "enabled") >> enabled) && enabled != 0;
}

}  // namespace

std::optional<std::uint64_t> BtrfsLimitRest(int folder) {
    const std::string groupsFolder = GroupsFolder(folder);
    if (!IsQuotaOn(groupsFolder)) {
        return std::nullopt;
    }
    std::uint64_t subvolume = 0;
    if (btrfs_util_subvolume_id_fd(folder, &subvolume) != BTRFS_UTIL_OK) {
        Fail(errno, "cannot tell a folder's subvolume");
    }
    std::optional<std::uint64_t> rest;
    std::set<GroupId> seen;
    std::vector<GroupId> open{subvolume};
    while (!open.empty()) {
        const GroupId group = open.back();
        open.pop_back();
        if (!seen.insert(group).second) {
            continue;
        }
        if (const auto here = RestOfGroup(groupsFolder, group)) {
            rest = std::min(rest.value_or(*here), *here);
        }
        const std::vector<GroupId> parents = ParentsOf(folder, group);
        open.insert(open.end(), parents.begin(), parents.end());
    }
    return rest;
}

}  // namespace korv
