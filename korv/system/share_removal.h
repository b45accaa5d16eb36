#pragma once

#include <functional>
#include <string>
#include <vector>

#include "korv/system/share_change.h"
#include "korv/system/share_store.h"

// Removing shares: journal row; an encrypted share locked; folder out of sight under a hidden name; the
// share's row out. From then on the share is gone for everybody, and what is left is freeing its space, which
// may take long and is done by one process in the background. All of it goes on after a crash.
namespace korv {

// What has just been done; a process that dies right after it leaves what RecoverShareRemovals carries on.
enum class RemovalStep { kJournalled, kLocked, kHidden, kRecorded };
using RemovalObserver = std::function<void(RemovalStep)>;

// Removes `share`, as it was just read, from sight. kBusy, with nothing changed, while files of it are open,
// something is mounted or known to be mounted in it, or it is changing otherwise. A folder that is gone or
// was replaced by another one is no failure; the other one stays.
ChangeOutcome RemoveShare(const ShareRow& share, const RemovalObserver& observer = {});

// Carries on with every removal whose maker died, until the share is out of sight; takes back those that this
// very process has refused and could not take back then. One that can't go on now is kept for later, and
// forgotten when `volumes`, the configured ones, no longer hold its volume. Safe to run in several processes
// at once.
Recovery RecoverShareRemovals(const std::vector<std::string>& volumes);

// True when there is space of removed shares to free at `now_s`, unix seconds, on one of `volumes`, the
// configured ones.
bool IsSpaceToFree(long long now_s, const std::vector<std::string>& volumes);

// The volumes that are none of the configured `volumes` and hold data of removed shares. Those are freed if
// the volume is ever configured again.
std::vector<std::string> VolumesOfForgottenSpace(const std::vector<std::string>& volumes);

// Frees the space of all removed shares on `volumes`, without following links. Blocks for as long as that
// takes or until `shouldStop` says so; what can't be removed now is tried again some minutes later. For one
// process at a time. Returns what could not be done, for the log.
std::vector<std::string> FreeRemovedShares(long long now_s, const std::vector<std::string>& volumes,
                                           const std::function<bool()>& shouldStop);

}  // namespace korv
