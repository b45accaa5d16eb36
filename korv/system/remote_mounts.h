#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "korv/system/mount_action.h"
#include "korv/system/mount_probe.h"

// Remote folders mounted inside shares, from the request to the row: what is mounted, guarded and kept in
// korv.db agrees after each of these, and after RecoverMounts also when one of them was cut short. All need
// saved uid 0 and throw what korv::Database() throws. Mounts of one folder don't overlap: who comes second is
// told kBusy after five seconds.
namespace korv {

struct NewMount {
    RemoteType type = RemoteType::kCifs;
    std::string source;
    std::string mountPoint;  // as FindMountPlaces reads it
    MountAccount account;
    std::string options;  // as the caller wrote them
    std::string nfsVersion;
    std::string protocol;
    bool isAutomatic = false;
    bool isOwned = true;  // the caller may manage it later, not only administrators
};

// Mounts and keeps it, or leaves nothing behind.
MountEnd AddMount(const NewMount& wanted, const MountCaller& caller);

// Unmounts and forgets the mount at `path`. kBusy while it is in use: everything is as before then.
MountEnd RemoveMount(const std::string& path, const MountCaller& caller);

// Mounts what is known at `path` again unless it is alive; what is dead or stale there is taken away first.
MountEnd ReconnectMount(const std::string& path, const MountCaller& caller);

// Finishes or undoes what processes that died have left half done. Returns what could not be done, for the
// log.
std::vector<std::string> RecoverMounts();

// A mount whose state is not what it was, or the first attempt to mount it again.
struct MountChange {
    std::string mountPoint;
    bool isNormal = false;
    std::string text;  // for the log
};

// One round of care, to be called every few seconds by one process: looks at all mounts at once, notes their
// state, and mounts what is automatic and due; attempts get rarer with failures, up to one in five minutes.
// One whose server is silent, without an error, is left alone for a minute.
//   now_s         unix time
//   tell          called when all states are noted, before the first attempt, and after each attempt
//   attemptsTime  when this has passed no further attempt is begun, so that the next look comes in time; what
//                 waits longest comes first
// Returns what has changed.
std::vector<MountChange> CareForMounts(
    long long now_s, const std::function<void()>& tell = [] {},
    std::chrono::milliseconds attemptsTime = std::chrono::seconds(5));

// Seconds between one failed automatic attempt and the next after `failures` of them.
long long RetryPause_s(int failures);

}  // namespace korv
