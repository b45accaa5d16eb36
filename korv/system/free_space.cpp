// What one user can still write: the rest of quotas and limits.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <limits>
#include <optional>
#include <system_error>

#include <linux/magic.h>
#include <linux/quota.h>
#include <sys/statfs.h>
#include <sys/syscall.h>

#include "platform/korv/volume.h"

#include "include/run_as_scope.h"
#include "korv/framework/log.h"
#include "korv/system/accounts.h"
#include "korv/system/bounded_call.h"
#include "korv/system/btrfs_quota.h"
#include "korv/system/cipher_folder.h"
#include "korv/system/file_descriptor.h"

namespace {

constexpr std::uint64_t kBytesPerMB = std::uint64_t{1} << 20;
constexpr std::int32_t kUnknown = -1;

// Says why `what` of `path` can't be told: by an errno, or for want of an answer. That a folder is silent
// altogether was said when it was looked for.
void LogUntold(const std::string& what, const std::string& path, std::optional<int> error) {
    if (error || !korv::IsSilent(path)) {
        korv::LogLine(what + " " + path + " can't be told: " +
                      (error ? std::generic_category().message(*error) : "it doesn't answer"));
    }
}

std::uint64_t FreeBytes(const struct statfs& facts) {
    return facts.f_bavail * static_cast<std::uint64_t>(facts.f_frsize);
}

// The errors by which file systems and kernels say that they keep no quotas.
bool IsWithoutQuotas(int error) {
    constexpr std::array<int, 6> kErrors{ESRCH, ENOSYS, EOPNOTSUPP, ENOTTY, ENODEV, ENOTBLK};
    return std::find(kErrors.begin(), kErrors.end(), error) != kErrors.end();
}

// 0 with the kernel's record of a user's quota, or an errno with a zeroed one. XFS has ENOENT for who owns
// nothing and has no limits; that is no error.
int AskQuota(int folder, uid_t uid, if_dqblk& record) {
    record = {};
    const bool isThere =
        syscall(SYS_quotactl_fd, folder, QCMD(Q_GETQUOTA, USRQUOTA), uid, &record) == 0 || errno == ENOENT;
    return isThere ? 0 : errno;
}

bool IsXfs(int folder) {
    struct statfs facts {};
    return fstatfs(folder, &facts) == 0 && facts.f_type == XFS_SUPER_MAGIC;
}

void TakeMissingLimits(if_dqblk& quota, const if_dqblk& defaults) {
    if (quota.dqb_bhardlimit == 0) {
        quota.dqb_bhardlimit = defaults.dqb_bhardlimit;
    }
    if (quota.dqb_bsoftlimit == 0) {
        quota.dqb_bsoftlimit = defaults.dqb_bsoftlimit;
    }
}

struct QuotaAnswer {
    if_dqblk quota;  // zeroed where there are no quotas
    int error;       // an errno where it can't be told
};

// On XFS the limits of id 0, whom no quota binds, are those of everybody who has none of their own.
QuotaAnswer ReadQuota(const char* volume, uid_t uid) {
    const korv::FileDescriptor folder(open(volume, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        return {{}, errno};
    }
    if_dqblk quota{};
    int error = AskQuota(folder.Get(), uid, quota);
    if (IsWithoutQuotas(error)) {
        return {{}, 0};
    }
    if (error == 0 && IsXfs(folder.Get())) {
        if_dqblk defaults{};
        error = AskQuota(folder.Get(), 0, defaults);
        TakeMissingLimits(quota, defaults);
    }
    return {quota, error};
}

// In the kernel's blocks, 0 = none. A soft limit is hard where there is no other, since it becomes so when
// its time of grace ends, and from then on.
std::uint64_t LimitOf(const if_dqblk& quota) {
    const bool isGraceOver =
        quota.dqb_btime != 0 && static_cast<std::uint64_t>(time(nullptr)) >= quota.dqb_btime;
    const bool isSoftHard = quota.dqb_bsoftlimit != 0 && (quota.dqb_bhardlimit == 0 || isGraceOver);
    return isSoftHard ? quota.dqb_bsoftlimit : quota.dqb_bhardlimit;
}

}  // namespace

int KORVQuotaGet(const char* user, const char* volume, KORVQUOTA* quota) {
    uid_t uid = 0;
    if (KORVUserGetUGID(user, &uid, nullptr) != 0) {
        return -1;
    }
    const auto answer =
        korv::CallBounded("quota", volume, [&] { return std::optional(ReadQuota(volume, uid)); });
    if (!answer || answer->error != 0) {
        LogUntold(std::string("the quota of ") + user + " on", volume,
                  answer ? std::optional(answer->error) : std::nullopt);
        return -1;
    }
    constexpr std::uint64_t kQuotaBlocksPerMB = kBytesPerMB / QIF_DQBLKSIZE;
    const std::uint64_t limit = uid != 0 ? LimitOf(answer->quota) : 0;
    quota->limitMB = static_cast<float>(limit) / static_cast<float>(kQuotaBlocksPerMB);
    quota->usedBytes = answer->quota.dqb_curspace;
    return 0;
}

namespace {

struct BtrfsAnswer {
    std::int32_t free_mb;
    int error;  // an errno where it can't be told
};

korv::FileDescriptor OpenFolder(const std::string& path) {
    return korv::FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// What is left for the folder that really holds the files.
std::optional<std::uint64_t> BtrfsFreeBytes(const std::string& path) {
    const korv::FileDescriptor folder = OpenFolder(path);
    struct statfs facts {};
    if (!folder || fstatfs(folder.Get(), &facts) != 0) {
        return std::nullopt;
    }
    const std::uint64_t freeBytes = FreeBytes(facts);
    return facts.f_type == BTRFS_SUPER_MAGIC
               ? std::min(freeBytes, korv::BtrfsLimitRest(folder.Get()).value_or(freeBytes))
               : freeBytes;
}

// The files of an unlocked share lie elsewhere, in a folder that may have limits, and are larger there.
BtrfsAnswer ReadBtrfsFree(const std::string& path) {
    const std::string cipherPath = korv::CipherFolder::PathBehind(path);
    try {
        auto freeBytes = BtrfsFreeBytes(cipherPath.empty() ? path : cipherPath);
        if (!freeBytes) {
            return {kUnknown, errno};
        }
        if (!cipherPath.empty()) {
            constexpr std::uint64_t kBlock_bytes = korv::CipherFolder::kCipherBlock_bytes;
            *freeBytes = *freeBytes / kBlock_bytes * korv::CipherFolder::kPlainBlock_bytes;
        }
        constexpr std::uint64_t kLargest = std::numeric_limits<std::int32_t>::max();
        return {static_cast<std::int32_t>(std::min(*freeBytes / kBytesPerMB, kLargest)), 0};
    } catch (const std::system_error& failure) {
        return {kUnknown, failure.code().value()};
    }
}

}  // namespace

// Btrfs limits subvolumes, not users: every user has the same answer.
std::int32_t SDKFuncData::GetBtrfsFreeMB(const std::string& path, uid_t /*uid*/) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        return kUnknown;
    }
    const auto answer = korv::CallBounded("size", path, [&] { return std::optional(ReadBtrfsFree(path)); });
    if (!answer || answer->error != 0) {
        LogUntold("the free space of", path, answer ? std::optional(answer->error) : std::nullopt);
    }
    return answer ? answer->free_mb : 0;
}
