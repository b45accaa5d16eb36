#include "korv/system/share_rename.h"

#include <optional>
#include <system_error>

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

// Takes back what FolderAndRow has done, after a failure of it. Returns what went wrong.
std::string Undo(int volume, const ShareRow& share, const std::string& newName) {
    const ChangeOutcome undone = TryChange([&] {
        if (IsFolderOfToken(volume, newName, share.token)) {
            RenameShareFolder(volume, newName, share.name);
        }
        PutMountBack(share);
        Drop(share.token);
    });
    return undone.end == ChangeEnd::kDone ? "" : " (not undone yet: " + undone.reason + ")";
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
    return TryChange([&] {
        PutMountBack(renamed);
        observer(RenameStep::kMountBack);
        Drop(share.token);
    });
}

// Called with the write lock held, so that no two processes recover the same rename.
void FinishOrUndo(const ShareRenameRow& row) {
    auto share = FindShareByToken(row.token);
    if (share) {
        const FileDescriptor volume = OpenVolume(share->volPath);
        if (share->name != row.name && IsFolderOfToken(volume.Get(), row.name, row.token)) {
            const std::string oldPath = share->Path();
            share->name = row.name;
            SaveShareFacts(*share);
            RenameMountRows(oldPath, *share);
        }
        PutMountBack(*share);
    }
    DropShareRename(row.token);
}

bool IsStillThere(const std::string& token) {
    for (const ShareRenameRow& each : ListShareRenames()) {
        if (each.token == token) {
            return true;
        }
    }
    return false;
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

std::vector<std::string> RecoverShareRenames() {
    std::vector<std::string> troubles;
    for (const ShareRenameRow& seen : ListShareRenames()) {
        if (!IsGivenUp(seen.maker)) {
            continue;
        }
        WriteTransaction transaction(Database());
        // Another process may have been faster.
        if (!IsStillThere(seen.token)) {
            continue;
        }
        try {
            FinishOrUndo(seen);
            transaction.Commit();
        } catch (const std::system_error& error) {
            troubles.push_back(std::string("a rename is kept for later: ") + error.what());
        }
    }
    return troubles;
}

}  // namespace korv
