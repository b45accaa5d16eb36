#include "korv/system/remote_mounts.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <random>
#include <system_error>

#include "korv/system/encrypted_share.h"
#include "korv/system/lock_file.h"

namespace korv {

namespace {

constexpr std::chrono::seconds kLockPatience(5);
constexpr long long kFirstPause_s = 5;
constexpr long long kLongestPause_s = 300;
// What waits for a server that is silent for a moment goes on when it answers again; a new mount would end
// it.
constexpr long long kSilencePatience_s = 60;

// Holds one mount point for this process, children included; none when another process has it for longer than
// `patience`. Throws when there can be no lock.
FileDescriptor LockMount(const std::string& mountPoint, std::chrono::seconds patience = kLockPatience) {
    return TakeLock("mount-locks", std::to_string(std::hash<std::string>{}(mountPoint)), patience);
}

MountEnd Failed(MountFailure failure) { return {failure, ""}; }

std::string NewToken() {
    constexpr int kWords = 4;
    std::random_device random;
    std::string token;
    for (int i = 0; i < kWords; ++i) {
        std::array<char, 16> digits{};
        std::snprintf(digits.data(), digits.size(), "%08x", random());
        token += digits.data();
    }
    return token;
}

void TakeFolderState(MountRow& row, const MountFolderState& state) {
    row.isFolderMade = state.isMade;
    row.guard = state.guard;
    row.guardMode = state.guardMode;
}

MountFolderState FolderStateOf(const MountRow& row) { return {row.isFolderMade, row.guard, row.guardMode}; }

// Attempts count until a look finds the mount alive: one that mounts and still isn't alive must not be made
// again at once.
void NoteAttempt(MountRow& row, MountFailure failure, long long now_s) {
    row.isNormal = failure == MountFailure::kNone;
    row.lastError = static_cast<int>(failure);
    ++row.failures;
    row.nextTry_s = now_s + RetryPause_s(row.failures);
}

void NoteLook(MountRow& row, bool isAlive) {
    row.isNormal = isAlive;
    if (isAlive) {
        row.failures = 0;
        row.nextTry_s = 0;
        row.lastError = 0;
    }
}

// A folder that somebody makes where the files of a locked share will show would keep it from being unlocked.
bool IsLocked(const ShareRow& share) { return EncryptionOf(share) == ShareEncryption::kLocked; }

// The place of a row; none when its share is gone.
std::optional<MountPlace> PlaceOf(const MountRow& row) {
    MountFailure ignored = MountFailure::kNone;
    for (const MountPlace& place : FindMountPlaces(row.mountPoint, ignored)) {
        if (place.Path() == row.mountPoint) {
            return place;
        }
    }
    return std::nullopt;
}

MountEnd Forget(const MountRow& row) {
    if (const int error = ForgetAccount(row.token); error != 0) {
        return {MountFailure::kFailed,
                "its account could not be removed: " + std::generic_category().message(error)};
    }
    DropMountRow(row.token);
    return Failed(MountFailure::kNone);
}

// Takes away the mount, the guard, the account and the row, in that order, from where they are by now.
MountEnd Undo(const MountRow& row, bool isForced) {
    ClearAttempt(row.token);
    const auto place = PlaceOf(FindMountRowByToken(row.token).value_or(row));
    if (place) {
        MountEnd unmounted = UnmountRemote(*place, isForced);
        if (unmounted.failure != MountFailure::kNone) {
            return unmounted;
        }
        MountEnd released = ReleaseMount(*place, FolderStateOf(row));
        if (released.failure != MountFailure::kNone) {
            return released;
        }
    }
    return Forget(row);
}

// False when an attempt ended before the folder was its own: what is mounted there is somebody else's.
bool IsTouched(const MountFolderState& state) { return state.isMade || state.guard != MountGuard::kNone; }

MountEnd MountAndKeep(MountRow& row, const MountPlace& place, const MountAccount& account,
                      const MountCaller& caller) {
    if (row.type == RemoteType::kCifs) {
        KeepAccount(row.token, account);
    }
    MountFolderState state;
    MountEnd end = MountRemote(row, place, caller, state);
    TakeFolderState(row, state);
    if (end.failure == MountFailure::kNone) {
        row.state = MountState::kKept;
        row.isNormal = true;
        if (SaveMountRow(row)) {
            return end;
        }
        end = {MountFailure::kFailed, "its row is gone"};
    }
    if (!IsTouched(state)) {
        end.output += Forget(row).output;
        DropMountRow(row.token);  // even so: what is at its place is not to be undone
        return end;
    }
    SaveMountRow(row);
    if (const MountEnd undone = Undo(row, true); undone.failure != MountFailure::kNone) {
        row.maker = {};  // for RecoverMounts
        SaveMountRow(row);
        end.output += undone.output;
    }
    return end;
}

// The known mount that `path` means, if the caller may manage it.
std::optional<MountRow> FindManaged(const std::string& path, const MountCaller& caller,
                                    MountFailure& failure) {
    std::optional<MountRow> row;
    for (const MountPlace& place : FindMountPlaces(path, failure)) {
        row = row ? row : FindMountRow(place.Path());
    }
    if (!row && (failure == MountFailure::kNone || failure == MountFailure::kNotInShare)) {
        row = FindMountRow(path);  // its share may be gone
        failure = MountFailure::kUnknownMount;
    }
    if (row && !caller.isAdmin && (row->owner.empty() || row->owner != caller.name)) {
        failure = MountFailure::kNotOwner;
        return std::nullopt;
    }
    if (row) {
        failure = MountFailure::kNone;
    }
    return row;
}

MountEnd MountAnew(MountRow& row, const MountPlace& place, MountSight sight) {
    if (sight != MountSight::kNotMounted) {
        MountEnd unmounted = UnmountRemote(place, true);
        if (unmounted.failure != MountFailure::kNone) {
            return unmounted;
        }
    }
    MountFolderState state = FolderStateOf(row);
    MountEnd end = MountRemote(row, place, std::nullopt, state);
    TakeFolderState(row, state);
    return end;
}

std::string TextOf(MountSight sight) {
    switch (sight) {
        case MountSight::kAlive:
            return "is alive";
        case MountSight::kNotMounted:
            return "is not mounted";
        case MountSight::kStale:
            return "is stale";
        case MountSight::kFailing:
            return "answers with an error";
        default:
            return "does not answer";
    }
}

// No attempt is put off for longer than the longest pause, unless the clock was set back.
bool IsDue(const MountRow& row, MountSight sight, long long now_s) {
    const bool isPutOff = row.failures > 0 || sight == MountSight::kSilent;
    const bool isTime = row.nextTry_s <= now_s || row.nextTry_s > now_s + kLongestPause_s;
    return row.isAutomatic && sight != MountSight::kAlive && (!isPutOff || isTime);
}

bool IsLeftHalfDone(const MountRow& row) { return row.state != MountState::kKept && !IsRunning(row.maker); }

// Takes away what attempts have mounted out of sight and left there, since whoever made them was killed. One
// to make a mount for the first time that is under way, or is still to be undone, has a row that says so;
// others hold the mount point.
void ClearLeftAttempts() {
    for (const std::string& token : ListAttempts()) {
        const auto row = FindMountRowByToken(token);
        const FileDescriptor lock =
            row ? LockMount(row->mountPoint, std::chrono::seconds(0)) : FileDescriptor();
        if (!row || (lock && row->state == MountState::kKept)) {
            ClearAttempt(token);
        }
    }
}

// Looks once more, since a moment may have passed or another process may have been at it, and mounts.
MountEnd TryAgain(MountRow& row, long long now_s) {
    const FileDescriptor lock = LockMount(row.mountPoint);
    const auto current = FindMountRow(row.mountPoint);
    const auto place = PlaceOf(row);
    if (!current) {
        return Failed(MountFailure::kUnknownMount);
    }
    if (!lock || current->token != row.token || current->state != MountState::kKept) {
        return Failed(MountFailure::kBusy);
    }
    if (!place) {
        return Failed(MountFailure::kNotInShare);
    }
    row = *current;
    const MountSight sight = LookAtMount(row.mountPoint).sight;
    if (sight == MountSight::kAlive) {
        NoteLook(row, true);
        SaveMountStatus(row);
        return Failed(MountFailure::kNone);
    }
    MountEnd end = IsLocked(place->share) ? Failed(MountFailure::kNoFolder) : MountAnew(row, *place, sight);
    NoteAttempt(row, end.failure, now_s);
    return SaveMountRow(row) ? end : Failed(MountFailure::kUnknownMount);
}

// Writes down what was seen, unless another process has mounted it anew or tried to since the row was read.
void NoteSight(MountRow& row, MountSight sight, long long now_s) {
    const MountRow before = row;
    NoteLook(row, sight == MountSight::kAlive);
    if (sight == MountSight::kSilent && row.nextTry_s == 0) {
        row.nextTry_s = now_s + kSilencePatience_s;
    }
    SaveMountStatus(row, before);
}

}  // namespace

MountEnd AddMount(const NewMount& wanted, const MountCaller& caller) {
    const auto source = ParseMountSource(wanted.type, wanted.source);
    const auto options = AllowedOptions({wanted.type, wanted.options, wanted.nfsVersion, wanted.protocol});
    if (!source) {
        return Failed(MountFailure::kBadSource);
    }
    if (!IsUsableAccount(wanted.account)) {
        return Failed(MountFailure::kBadAccountText);
    }
    if (!options) {
        return Failed(MountFailure::kBadOption);
    }
    MountFailure failure = MountFailure::kNone;
    const auto places = FindMountPlaces(wanted.mountPoint, failure);
    if (places.empty()) {
        return Failed(failure);
    }
    const MountPlace& place = places.front();
    if (IsLocked(place.share)) {
        return Failed(MountFailure::kNoFolder);
    }
    const FileDescriptor lock = LockMount(place.Path());
    if (!lock) {
        return Failed(MountFailure::kBusy);
    }
    if (IsMounted(place.Path())) {
        return Failed(MountFailure::kMountPointTaken);
    }
    MountRow row;
    row.mountPoint = place.Path();
    row.share = place.share.name;
    row.token = NewToken();
    row.type = wanted.type;
    row.source = source->text;
    row.options = *options;
    row.owner = wanted.isOwned ? caller.name : "";
    row.isAutomatic = wanted.isAutomatic;
    row.hasAccount = wanted.type == RemoteType::kCifs && !wanted.account.name.empty();
    row.maker = ThisProcess();
    // Whoever undoes this, should it be cut short, has to know what was there.
    MountFolderState foreseen;
    if (MountEnd end = ForeseeMount(place, foreseen); end.failure != MountFailure::kNone) {
        return end;
    }
    TakeFolderState(row, foreseen);
    if (!AddMountRow(row)) {
        return Failed(MountFailure::kMountPointTaken);
    }
    return MountAndKeep(row, place, wanted.account, caller);
}

MountEnd RemoveMount(const std::string& path, const MountCaller& caller) {
    MountFailure failure = MountFailure::kNone;
    auto row = FindManaged(path, caller, failure);
    if (!row) {
        return Failed(failure);
    }
    const FileDescriptor lock = LockMount(row->mountPoint);
    row = FindMountRow(row->mountPoint);
    if (!lock || !row) {
        return Failed(row ? MountFailure::kBusy : MountFailure::kUnknownMount);
    }
    const MountState before = row->state;
    row->state = MountState::kRemoving;
    row->maker = ThisProcess();
    if (!SaveMountRow(*row)) {
        return Failed(MountFailure::kUnknownMount);
    }
    MountEnd end = Undo(*row, false);
    if (end.failure != MountFailure::kNone) {
        row->state = before;
        SaveMountRow(*row);
    }
    return end;
}

MountEnd ReconnectMount(const std::string& path, const MountCaller& caller) {
    MountFailure failure = MountFailure::kNone;
    auto row = FindManaged(path, caller, failure);
    if (!row) {
        return Failed(failure);
    }
    return TryAgain(*row, std::time(nullptr));
}

std::vector<std::string> RecoverMounts() {
    std::vector<std::string> troubles;
    for (const MountRow& row : ListMountRows()) {
        if (!IsLeftHalfDone(row)) {
            continue;
        }
        const FileDescriptor lock = LockMount(row.mountPoint);
        const auto current = FindMountRow(row.mountPoint);
        // Whoever held the lock may have finished it, or made another mount there.
        if (!lock || !current || current->token != row.token || !IsLeftHalfDone(*current)) {
            continue;
        }
        // A maker that died before it could write it down may have guarded the folder.
        MountRow guarded = *current;
        if (guarded.guard == MountGuard::kNone) {
            guarded.guard = MountGuard::kNoRights;
        }
        const MountEnd end = Undo(guarded, true);
        if (end.failure != MountFailure::kNone) {
            troubles.push_back("the mount at " + row.mountPoint + " could not be taken away: " + end.output);
        }
    }
    ClearLeftAttempts();
    return troubles;
}

long long RetryPause_s(int failures) {
    constexpr int kMostDoublings = 6;
    const int doublings = std::clamp(failures - 1, 0, kMostDoublings);
    return std::min(kFirstPause_s << doublings, kLongestPause_s);
}

std::vector<MountChange> CareForMounts(long long now_s, const std::function<void()>& tell,
                                       std::chrono::milliseconds attemptsTime) {
    std::vector<MountRow> rows = ListMountRows();
    std::erase_if(rows, [](const MountRow& row) { return row.state != MountState::kKept; });
    std::stable_sort(rows.begin(), rows.end(), [](const MountRow& left, const MountRow& right) {
        return left.nextTry_s < right.nextTry_s;
    });
    std::vector<std::string> paths;
    paths.reserve(rows.size());
    for (const MountRow& row : rows) {
        paths.push_back(row.mountPoint);
    }
    const std::vector<MountFacts> sights = LookAtMounts(paths);
    std::vector<bool> wasNormal;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        wasNormal.push_back(rows[i].isNormal);
        NoteSight(rows[i], sights[i].sight, now_s);
    }
    tell();  // an attempt may take its full deadline, and those of the other mounts come after it
    std::vector<MountChange> changes;
    bool mayTry = true;
    const auto end = std::chrono::steady_clock::now() + attemptsTime;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        MountRow& row = rows[i];
        const MountSight sight = sights[i].sight;
        std::string text = TextOf(sight);
        const bool isTried = mayTry && IsDue(row, sight, now_s);
        const bool isFirstTry = isTried && row.failures == 0;
        if (isTried) {
            const MountEnd tried = TryAgain(row, now_s);
            text += row.isNormal
                        ? " and was mounted again"
                        : ", code " + std::to_string(static_cast<int>(tried.failure)) + ": " + tried.output;
            tell();
            mayTry = std::chrono::steady_clock::now() < end;
        }
        if (row.isNormal != wasNormal[i] || isFirstTry) {
            changes.push_back({row.mountPoint, row.isNormal, text});
        }
    }
    return changes;
}

}  // namespace korv
