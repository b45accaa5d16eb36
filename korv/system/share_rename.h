#pragma once

#include <functional>
#include <string>
#include <vector>

#include "korv/system/share_change.h"
#include "korv/system/share_store.h"

// Giving shares another name, description or visibility. A rename is journalled: row of the new name; plain
// files of an encrypted share aside; folder gets its new name; share and mounts recorded; plain files back. A
// journal row whose maker is gone is finished when the folder has got its new name, and undone otherwise.
namespace korv {

// What has just been done; a process that dies right after it leaves what RecoverShareRenames puts in order.
enum class RenameStep { kJournalled, kMountAside, kFolderRenamed, kRecorded, kMountBack };
using RenameObserver = std::function<void(RenameStep)>;

// Makes the row and the folder of `share`, as it was just read, what `wanted` says about name (a valid one),
// description and visibility; the rest of `wanted` is not looked at. All of it happens or nothing. A rename
// of a share whose files are open, or that is changing already, is kBusy. From the moment that the row has
// the new name the end is kDone; a reason says then what a recovery has yet to put in order.
ChangeOutcome ChangeShare(const ShareRow& share, const ShareRow& wanted, const RenameObserver& observer = {});

// Finishes or undoes every rename whose maker is gone, and undoes those that this very process has reported
// as failed and could not undo then; one whose volume isn't mounted now is kept for later. Safe to run in
// several processes at once.
Recovery RecoverShareRenames();

}  // namespace korv
