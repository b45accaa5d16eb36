#pragma once

#include <functional>
#include <string>

#include "korv/system/job_store.h"
#include "korv/system/share_change.h"
#include "korv/system/share_store.h"

// Jobs that make a plain share encrypted or an encrypted one plain, while people use it.
namespace korv {

// kDone when `share`, a plain one, can be encrypted with `password`, or an encrypted one decrypted
// (`password` is not looked at then) as far as can be seen now: else kEncryptionRefused (password, locked, no
// tool), kBusy (mounts inside), kNoSpace or kVolumeUnusable. Looks at the share's size for at most two
// seconds; what takes longer is found out by the job, which ends before it makes anything.
ChangeOutcome CheckMove(const ShareRow& share, const std::string& password);

// Makes the job for that.
//   id  out: the job's
// kBusy when the share is changing otherwise. Nothing has changed after a failure.
ChangeOutcome StartMove(const ShareRow& share, const std::string& password, long long& id);

enum class CancelEnd { kDone, kUnknown, kTooLate };
// Asks a job to undo what it did; after its folder has taken the share's place it is too late.
CancelEnd CancelJob(long long id);

// Removes passwords that a killed process has left of jobs that are over, or were never made.
void ForgetLostJobPasswords();

// Works on the job `id` until it is over, has to wait, or `shouldStop` says so; does nothing when another
// process works on it. What is saved lets a later call go on wherever this process is killed. Returns what
// is worth a line of the log.
std::string RunMoveJob(long long id, const std::function<bool()>& shouldStop);

}  // namespace korv
