#include "korv/system/share_removal.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <set>
#include <system_error>

#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/open_files.h"
#include "korv/system/share_change_store.h"
#include "korv/system/share_folder.h"
#include "korv/system/share_use.h"
#include "korv/system/tree_remove.h"

namespace korv {

namespace {

constexpr long long kRetryPause_s = 300;
constexpr long long kBusyPause_s = 30;

void CheckUnused(const ShareRow& share) {
    if (HasMountsInside(share)) {
        throw ChangeFailure{ChangeEnd::kBusy, "something is mounted in the share"};
    }
    if (IsFileOpenBeneath(share.Path())) {
        throw ChangeFailure{ChangeEnd::kBusy, "files of the share are open"};
    }
}

void Claim(const ShareRow& share) {
    WriteTransaction transaction(Database());
    const auto now = FindShareByToken(share.token);
    if (!now || now->name != share.name || IsShareChanging(share.token)) {
        throw ChangeFailure{ChangeEnd::kBusy, "another change of the share is under way"};
    }
    SaveShareRemoval({share.token, share.name, share.volPath, false, 0, ThisProcess()});
    transaction.Commit();
}

void Lock(const ShareRow& share) {
    if (share.encryption == ShareEncryption::kNone) {
        return;
    }
    const CipherEnd end = LockShare(share);
    if (end != CipherEnd::kDone) {
        throw ChangeFailure{end == CipherEnd::kBusy ? ChangeEnd::kBusy : ChangeEnd::kFailed,
                            "the share can't be locked"};
    }
}

// Expects the caller's WriteTransaction.
void Record(const ShareRow& share) {
    DropShare(share.token);
    SaveShareRemoval({share.token, share.name, share.volPath, true, 0, {}});
}

void Drop(const std::string& token) {
    WriteTransaction transaction(Database());
    DropShareRemoval(token);
    transaction.Commit();
}

// Takes back a removal that was refused or failed before the share was out of sight.
void TakeBack(int volume, const ShareRow& share) {
    const std::string hidden = RemovedFolderName(share.token);
    if (IsFolderOfToken(volume, hidden, share.token) && !RenameShareFolder(volume, hidden, share.name)) {
        throw ChangeFailure{ChangeEnd::kNameTaken, "something else has the share's name"};
    }
    Drop(share.token);
}

std::string Undo(int volume, const ShareRow& share) {
    const ChangeOutcome undone = TryChange([&] { TakeBack(volume, share); });
    return undone.end == ChangeEnd::kDone ? "" : " (not undone yet: " + undone.reason + ")";
}

// What this process has refused and could not take back then. Its caller was told so: never carried on with.
void TakeBackRefused(const ShareRemovalRow& row) {
    const auto share = FindShareByToken(row.token);
    if (share) {
        TakeBack(OpenVolume(row.volPath).Get(), *share);
    } else {
        Drop(row.token);
    }
}

void CarryOn(const ShareRemovalRow& row) {
    const FileDescriptor volume = OpenVolume(row.volPath);
    const auto share = FindShareByToken(row.token);
    if (!share) {
        Drop(row.token);
        return;
    }
    Lock(*share);
    HideShareFolder(volume.Get(), share->name, share->token);
    WriteTransaction transaction(Database());
    Record(*share);
    transaction.Commit();
}

std::optional<ShareRemovalRow> Find(const std::string& token) {
    for (const ShareRemovalRow& each : ListShareRemovals()) {
        if (each.token == token) {
            return each;
        }
    }
    return std::nullopt;
}

// Makes the row that of this process, so that others can write while it works. False when there is nothing to
// do any more: another process was faster, or the volume is none of the configured ones.
bool ClaimGivenUp(const std::string& token, bool isVolumeKnown) {
    WriteTransaction transaction(Database());
    const auto row = Find(token);
    if (!row || row->isHidden || !IsGivenUp(row->maker)) {
        return false;
    }
    if (isVolumeKnown) {
        SaveShareRemovalMaker(token, ThisProcess());
    } else {
        DropShareRemoval(token);
    }
    transaction.Commit();
    return isVolumeKnown;
}

void CarryOnOrTakeBack(const ShareRemovalRow& row) {
    IsThisProcess(row.maker) ? TakeBackRefused(row) : CarryOn(row);
}

// Leaves a removal that can't go on now to whoever recovers later; one that this process has refused stays
// its own. Returns what went wrong.
std::string PutOff(const ShareRemovalRow& row) {
    const ChangeOutcome outcome = TryChange([&] {
        WriteTransaction transaction(Database());
        PostponeShareRemoval(row.token, false, time(nullptr) + kBusyPause_s);
        if (!IsThisProcess(row.maker)) {
            SaveShareRemovalMaker(row.token, {});
        }
        transaction.Commit();
    });
    return outcome.end == ChangeEnd::kDone ? "" : " (and is taken back then: " + outcome.reason + ")";
}

void Postpone(const ShareRemovalRow& row, long long until_s) {
    WriteTransaction transaction(Database());
    PostponeShareRemoval(row.token, row.isHidden, until_s);
    transaction.Commit();
}

bool IsOn(const std::vector<std::string>& volumes, const ShareRemovalRow& row) {
    return std::find(volumes.begin(), volumes.end(), row.volPath) != volumes.end();
}

bool IsDue(const ShareRemovalRow& row, long long now_s) { return row.isHidden && row.nextTry_s <= now_s; }

// Empty when nothing of it is left.
std::string Free(const ShareRemovalRow& row, const std::function<bool()>& shouldStop) {
    const FileDescriptor volume = OpenVolume(row.volPath);
    const std::string hidden = ".korv/";
    for (const std::string& path : {RemovedFolderName(row.token), hidden + "cipher/" + row.token,
                                    hidden + "move/" + row.token, hidden + "view/" + row.token}) {
        const TreeRemoval removal = RemoveTree(volume.Get(), path, shouldStop);
        if (!removal.isGone) {
            const std::string where = removal.problems.empty() ? path : removal.problems.front().path;
            const int error = removal.problems.empty() ? 0 : removal.problems.front().error;
            return where + ": " + std::generic_category().message(error);
        }
    }
    return "";
}

}  // namespace

ChangeOutcome RemoveShare(const ShareRow& share, const RemovalObserver& observer) {
    const RemovalObserver notify = observer ? observer : [](RemovalStep) {};
    FileDescriptor volume;
    ChangeOutcome outcome = TryChange([&] {
        volume = OpenVolume(share.volPath);
        CheckUnused(share);
        Claim(share);
    });
    if (outcome.end != ChangeEnd::kDone) {
        return outcome;
    }
    notify(RemovalStep::kJournalled);
    outcome = TryChange([&] {
        Lock(share);
        notify(RemovalStep::kLocked);
        HideShareFolder(volume.Get(), share.name, share.token);
        notify(RemovalStep::kHidden);
        WriteTransaction transaction(Database());
        Record(share);
        transaction.Commit();
        notify(RemovalStep::kRecorded);
    });
    if (outcome.end != ChangeEnd::kDone) {
        outcome.reason += Undo(volume.Get(), share);
    }
    return outcome;
}

Recovery RecoverShareRemovals(const std::vector<std::string>& volumes) {
    Recovery recovery;
    for (const ShareRemovalRow& seen : ListShareRemovals()) {
        if (seen.isHidden || seen.nextTry_s > time(nullptr) || !IsGivenUp(seen.maker)) {
            continue;
        }
        bool isClaimed = false;
        const ChangeOutcome outcome = TryChange([&] {
            isClaimed = ClaimGivenUp(seen.token, IsOn(volumes, seen));
            if (isClaimed) {
                CarryOnOrTakeBack(seen);
            }
        });
        if (outcome.end == ChangeEnd::kDone) {
            recovery.hasChangedShares |= isClaimed;
        } else {
            recovery.troubles.push_back("a removal on " + seen.volPath + " is kept for later: " +
                                        outcome.reason + (isClaimed ? PutOff(seen) : ""));
        }
    }
    return recovery;
}

bool IsSpaceToFree(long long now_s, const std::vector<std::string>& volumes) {
    const auto rows = ListShareRemovals();
    return std::any_of(rows.begin(), rows.end(),
                       [&](const ShareRemovalRow& row) { return IsDue(row, now_s) && IsOn(volumes, row); });
}

std::vector<std::string> VolumesOfForgottenSpace(const std::vector<std::string>& volumes) {
    std::set<std::string> forgotten;
    for (const ShareRemovalRow& row : ListShareRemovals()) {
        if (row.isHidden && !IsOn(volumes, row)) {
            forgotten.insert(row.volPath);
        }
    }
    return {forgotten.begin(), forgotten.end()};
}

std::vector<std::string> FreeRemovedShares(long long now_s, const std::vector<std::string>& volumes,
                                           const std::function<bool()>& shouldStop) {
    std::vector<std::string> troubles;
    for (const ShareRemovalRow& row : ListShareRemovals()) {
        if (!IsDue(row, now_s) || !IsOn(volumes, row) || shouldStop()) {
            continue;
        }
        std::string trouble;
        const ChangeOutcome outcome = TryChange([&] { trouble = Free(row, shouldStop); });
        if (shouldStop()) {
            break;
        }
        trouble = outcome.end == ChangeEnd::kDone ? trouble : outcome.reason;
        if (trouble.empty()) {
            Drop(row.token);
        } else {
            troubles.push_back("the space of a removed share is freed later: " + trouble);
            Postpone(row, now_s + kRetryPause_s);
        }
    }
    return troubles;
}

}  // namespace korv
