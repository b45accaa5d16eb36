#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "korv/system/mount_source.h"
#include "korv/system/process_identity.h"

// The rows of remote mounts in korv.db. All functions use korv::Database() and throw what it throws; the
// changing ones are one statement each.
namespace korv {

enum class MountState { kMaking, kKept, kRemoving };

// What keeps people from writing into a mount point while nothing is mounted there.
enum class MountGuard : int { kNone = 0, kImmutable = 1, kNoRights = 2 };

// A row of the table mount.
struct MountRow {
    std::string mountPoint;  // absolute
    std::string share;
    std::string token;
    RemoteType type = RemoteType::kCifs;
    std::string source;
    std::string options;  // allowed ones, separated by commas
    std::string owner;
    bool isAutomatic = false;
    MountState state = MountState::kMaking;
    ProcessIdentity maker;
    bool isFolderMade = false;
    MountGuard guard = MountGuard::kNone;
    mode_t guardMode = 0;
    bool isNormal = false;
    int lastError = 0;
    int failures = 0;
    long long nextTry_s = 0;
    bool hasAccount = false;  // never to be tried as a guest
};

// All mounts by mount point.
std::vector<MountRow> ListMountRows();
std::optional<MountRow> FindMountRow(const std::string& mountPoint);
// Its mount point is another one after a rename of the share.
std::optional<MountRow> FindMountRowByToken(const std::string& token);

// False when there is a row of that mount point.
bool AddMountRow(const MountRow& row);
// Writes everything of the row of that token but where it is. False when there is none any more.
bool SaveMountRow(const MountRow& row);
// Writes only what the last look or attempt gave: status, error, failures and the next attempt.
void SaveMountStatus(const MountRow& row);
// The same unless another process has written something else than `before` meanwhile.
void SaveMountStatus(const MountRow& row, const MountRow& before);
// What failed before is tried again at once, as if it had never been tried.
void ForgetMountFailures();
void DropMountRow(const std::string& token);

}  // namespace korv
