#pragma once

#include <functional>
#include <string>
#include <vector>

#include "korv/system/share_store.h"

// Making shares so that a row and its folder appear together, whenever the process or the machine dies:
// journal row; hidden folder, made ready; folder gets its name; row in, journal row out. A journal row whose
// maker is gone is finished when the folder has got its name, and undone otherwise; an encrypted share is
// always undone, since nobody was told that its password holds.
namespace korv {

// What has just been done. A process that dies right after any of them leaves a state that
// RecoverShareCreations puts in order.
enum class CreationStep {
    kJournalled,
    kFolderMade,
    kFolderSecured,
    kFolderMarked,
    kEncrypted,  // of encrypted shares only, as kUnlocked
    kPublished,
    kUnlocked,
    kRecorded,
};
using CreationObserver = std::function<void(CreationStep)>;

enum class CreationEnd { kCreated, kNameTaken, kVolumeUnusable, kNoSpace, kEncryptionRefused, kFailed };

struct CreationOutcome {
    CreationEnd end = CreationEnd::kFailed;
    std::string reason;  // for the log; empty when nothing went wrong, as for a name that is taken
};

// Makes the share `wanted`, whose name is valid and whose volume is one of the configured ones; its token and
// time are set here. The name is free only if neither a share nor anything in the volume's root has it; of
// several creators, in this process or others, one wins. Afterwards the share is complete, or nothing of it
// is left, or a journal row that a later recovery undoes. Blocks for a few writes to the disk;
// an encrypted share takes a second or two more.
//   password  of an encrypted share (wanted.encryption is not kNone), which is unlocked afterwards
CreationOutcome CreateShare(ShareRow wanted, const CreationObserver& observer = {},
                            const std::string& password = "");

// Finishes or undoes every creation whose maker is gone; one whose volume isn't mounted now is kept for
// later, and dropped when `volumes`, the configured ones, no longer hold it. Safe to run in several processes
// at once. Returns what could not be done, for the log. Throws what korv::Database() throws.
std::vector<std::string> RecoverShareCreations(const std::vector<std::string>& volumes);

}  // namespace korv
