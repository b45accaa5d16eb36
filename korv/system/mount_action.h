#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "korv/system/mount_place.h"
#include "korv/system/mount_record.h"

// Mounting and unmounting, one child with a deadline each. Needs saved uid 0.
namespace korv {

// How an attempt ended.
//   output  what the helper wrote, for the log; secrets don't stand in it
struct MountEnd {
    MountFailure failure = MountFailure::kFailed;
    std::string output;
};

// Keeps `account` in the file that the helper reads, 0600 and root's; <stateDir>/mounts/<token>.account.
// Throws std::system_error. Without a name no file is made: the mount is a guest's.
void KeepAccount(const std::string& token, const MountAccount& account);

// Removes that file, if there is one. 0, or why it stays: an errno.
int ForgetAccount(const std::string& token);

// ForeseeFolderState in a child of its own.
MountEnd ForeseeMount(const MountPlace& place, MountFolderState& state);

// Mounts what `row` describes at `place`. The mount is made where only root can go and then put in its place,
// so that nobody can lead it elsewhere, with nosuid, nodev and noexec whatever the helper made of them.
//   caller  set for the first mount: the folder is checked and made ready; none for a later one
//   state   in/out: what has been done to the folder, also after a failure (it is not undone here)
MountEnd MountRemote(const MountRow& row, const MountPlace& place, const std::optional<MountCaller>& caller,
                     MountFolderState& state);

// Tokens of the mounts that somebody is trying to make, or was when it was killed.
std::set<std::string> ListAttempts();

// Takes away what such an attempt has mounted out of sight; the folder and what is mounted in its place stay.
void ClearAttempt(const std::string& token);

// Takes away everything mounted at `place`; nothing there is a success.
//   isForced  true: also what is in use or doesn't answer; else those are kBusy
MountEnd UnmountRemote(const MountPlace& place, bool isForced);

// Undoes what was done to the folder; nothing may be mounted there.
MountEnd ReleaseMount(const MountPlace& place, const MountFolderState& state);

}  // namespace korv
