// What one user can still write: the rest of quotas and limits.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
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

std::uint64_t FreeBytes(const struct statfs& facts) {
    return facts.f_bavail * static_cast<std::uint64_t>(facts.f_frsize);
}

// The errors by which file systems and kernels say that they keep no quotas.
bool IsWithoutQuotas(int error) {
    constexpr std::array<int, 6> kErrors{ESRCH, ENOSYS, EOPNOTSUPP, ENOTTY, ENODEV, ENOTBLK};
    return std::find(kErrors.begin(), kErrors.end(), error) != kErrors.end();
}

// The kernel's record of the user's quota; a zeroed one where there are no quotas.
std::optional<if_dqblk> ReadQuota(const char* volume, uid_t uid) {
    const korv::FileDescriptor folder(open(volume, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        return std::nullopt;
    }
    if_dqblk quota{};
    if (syscall(SYS_quotactl_fd, folder.Get(), QCMD(Q_GETQUOTA, USRQUOTA), uid, &quota) == 0) {
        return quota;
    }
    return IsWithoutQuotas(errno) ? std::optional(if_dqblk{}) : std::nullopt;
}

}  // namespace

// Where there is no hard limit the soft one is taken: it becomes hard when its time of grace ends.
int KORVQuotaGet(const char* user, const char* volume, KORVQUOTA* quota) {
    uid_t uid = 0;
    if (KORVUserGetUGID(user, &uid, nullptr) != 0) {
        return -1;
    }
    const auto record = korv::CallBounded("quota", volume, [&] { return ReadQuota(volume, uid); });
    if (!record) {
        return -1;
    }
    constexpr std::uint64_t kQuotaBlocksPerMB = kBytesPerMB / QIF_DQBLKSIZE;
    const std::uint64_t limit = record->dqb_bhardlimit != 0 ? record->dqb_bhardlimit : record->dqb_bsoftlimit;
    quota->limitMB = static_cast<float>(limit) / static_cast<float>(kQuotaBlocksPerMB);
    quota->usedBytes = record->dqb_curspace;
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
    // That a folder is silent altogether was said when it was looked for.
    if (answer ? answer->error != 0 : !korv::IsSilent(path)) {
        korv::LogLine("the free space of " + path + " can't be told: " +
                      (answer ? std::generic_category().message(answer->error) : "it doesn't answer"));
    }
    return answer ? answer->free_mb : 0;
}
