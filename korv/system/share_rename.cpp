#include "korv/system/share_rename.h"

#include <optional>

#include "korv/system/database.h"
#include "korv/system/encrypted_share.h"
#include "korv/system/open_files.h"
#include "korv/system/share_change_store.h"
#include "korv/system/share_folder.h"

namespace korv {

namespace {

// The share's row as it is now; a share that changed since it was read is busy.
ShareRow CheckUnchanged(const ShareRow& share) {
    const auto now = FindShareByToken(share.token);
    if (!now || now->name != share.name) {
        throw ChangeFailure{ChangeEnd::kBusy, "the share has changed meanwhile"};
    }
    return *now;
}

// The journal row is the claim on the new name.
void Claim(const ShareRow& share, const std::string& newName) {
    WriteTransaction transaction(Database());
    CheckUnchanged(share);
    if (IsShareNameTaken(newName, share.token)) {
        throw ChangeFailure{ChangeEnd::kNameTaken, ""};
    }
    if (IsShareChanging(share.token)) {
        throw ChangeFailure{ChangeEnd::kBusy, "another change of the share is under way"};
    }
    AddShareRename({share.token, newName, ThisProcess()});
    transaction.Commit();
}

void Drop(const std::string& token) {
    WriteTransaction transaction(Database());
    DropShareRename(token);
    transaction.Commit();
}

void Record(const std::string& oldPath, const ShareRow& renamed) {
    WriteTransaction transaction(Database());
    SaveShareFacts(renamed);
    RenameMountRows(oldPath, renamed);
    transaction.Commit();
}

void RenameFolder(int volume, const ShareRow& share, const std::string& newName) {
    if (!IsFolderOfToken(volume, share.name, share.token)) {
        throw ChangeFailure{ChangeEnd::kFailed, "the share's folder is gone"};
    }
    if (!RenameShareFolder(volume, share.name, newName)) {
        throw ChangeFailure{ChangeEnd::kNameTaken, ""};
    }
}

void FolderAndRow(int volume, const ShareRow& share, const ShareRow& renamed,
                  const RenameObserver& observer) {
    TakeMountAside(share);
    observer(RenameStep::kMountAside);
    RenameFolder(volume, share, renamed.name);
    observer(RenameStep::kFolderRenamed);
    Record(share.Path(), renamed);
    observer(RenameStep::kRecorded);
}

void BringFolderBack(int volume, const ShareRow& share, const std::string& newName) {
    if (IsFolderOfToken(volume, newName, share.token) && !RenameShareFolder(volume, newName, share.name)) {
        throw ChangeFailure{ChangeEnd::kNameTaken, "something else has the share's old name"};
    }
}

// Takes back what FolderAndRow has done, after a failure of it. Returns what went wrong.
std::string Undo(int volume, const ShareRow& share, const std::string& newName) {
    const ChangeOutcome undone = TryChange([&] {
        BringFolderBack(volume, share, newName);
        PutMountBack(share);
        Drop(share.token);
    });
    return undone.end == ChangeEnd::kDone ? "" : " (not undone yet: " + undone.reason + ")";
}

// Lets whoever recovers next take up a rename that is to be finished.
void GiveUp(const std::string& token) {
    WriteTransaction transaction(Database());
    SaveShareRenameMaker(token, {});
    transaction.Commit();
}

// What comes after the share's row has its new name. The rename is a fact then, whatever goes wrong.
ChangeOutcome PutInOrder(const ShareRow& renamed, const RenameObserver& observer) {
    ChangeOutcome outcome = TryChange([&] {
        PutMountBack(renamed);
        observer(RenameStep::kMountBack);
        Drop(renamed.token);
    });
    if (outcome.end == ChangeEnd::kDone) {
        return outcome;
    }
    const std::string trouble = TryChange([&] { GiveUp(renamed.token); }).reason;
    return {ChangeEnd::kDone, "renamed, the rest is done later: " + outcome.reason +
                                  (trouble.empty() ? "" : ", and by this process only: " + trouble)};
}

ChangeOutcome Rename(const ShareRow& share, const ShareRow& renamed, const RenameObserver& observer) {
    FileDescriptor volume;
    ChangeOutcome outcome = TryChange([&] {
        volume = OpenVolume(share.volPath);
        if (IsFileOpenBeneath(share.Path())) {
            throw ChangeFailure{ChangeEnd::kBusy, "files of the share are open"};
        }
        Claim(share, renamed.name);
    });
    if (outcome.end != ChangeEnd::kDone) {
        return outcome;
    }
    observer(RenameStep::kJournalled);
    outcome = TryChange([&] { FolderAndRow(volume.Get(), share, renamed, observer); });
    if (outcome.end != ChangeEnd::kDone) {
        outcome.reason += Undo(volume.Get(), share, renamed.name);
        return outcome;
    }
    return PutInOrder(renamed, observer);
}

std::optional<ShareRenameRow> Find(const std::string& token) {
    for (const ShareRenameRow& each : ListShareRenames()) {
        if (each.token == token) {
            return each;
        }
    }
    return std::nullopt;
}

// False when another process was faster. Others can write while this one works on what it has claimed.
bool ClaimGivenUp(const std::string& token) {
    WriteTransaction transaction(Database());
    const auto row = Find(token);
    if (!row || !IsGivenUp(row->maker)) {
        return false;
    }
    SaveShareRenameMaker(token, ThisProcess());
    transaction.Commit();
    return true;
}

void RecordFinished(const std::string& token, const std::string& newName) {
    WriteTransaction transaction(Database());
    if (auto share = FindShareByToken(token)) {
        const std::string oldPath = share->Path();
        share->name = newName;
        SaveShareFacts(*share);
        RenameMountRows(oldPath, *share);
    }
    transaction.Commit();
}

// One that this very process has not got recorded was reported as failed: it is never finished.
void FinishOrUndo(const ShareRenameRow& row) {
    auto share = FindShareByToken(row.token);
    if (share && share->name != row.name) {
        const FileDescriptor volume = OpenVolume(share->volPath);
        if (IsThisProcess(row.maker)) {
            BringFolderBack(volume.Get(), *share, row.name);
        } else if (IsFolderOfToken(volume.Get(), row.name, row.token)) {
            RecordFinished(row.token, row.name);
            share = FindShareByToken(row.token);
        }
    }
    if (share) {
        PutMountBack(*share);
    }
    Drop(row.token);
}

}  // namespace

ChangeOutcome ChangeShare(const ShareRow& share, const ShareRow& wanted, const RenameObserver& observer) {
    ShareRow changed = share;
    changed.name = wanted.name;
    changed.description = wanted.description;
    changed.isHidden = wanted.isHidden;
    if (share.name != changed.name) {
        return Rename(
            share, changed, observer ? observer : [](RenameStep) {});
    }
    return TryChange([&] {
        WriteTransaction transaction(Database());
        CheckUnchanged(share);
        SaveShareFacts(changed);
        transaction.Commit();
    });
}

Recovery RecoverShareRenames() {
    Recovery recovery;
    for (const ShareRenameRow& seen : ListShareRenames()) {
        if (!IsGivenUp(seen.maker)) {
            continue;
        }
        bool isClaimed = false;
        const ChangeOutcome outcome = TryChange([&] {
            isClaimed = ClaimGivenUp(seen.token);
            if (isClaimed) {
                FinishOrUndo(seen);
            }
        });
        if (outcome.end == ChangeEnd::kDone) {
            recovery.hasChangedShares |= isClaimed;
            continue;
        }
        recovery.troubles.push_back("a rename is kept for later: " + outcome.reason);
        if (isClaimed && !IsThisProcess(seen.maker)) {
            // Failing this, the row stays this process's, which takes the rename back then.
            TryChange([&] { GiveUp(seen.token); });
        }
    }
    return recovery;
}

}  // namespace korv
