#pragma once

namespace korv {

// The life of the process that looks after remote mounts, called in the child right after the fork, as root
// with no signal blocked: loads the modules, so that they can be told, and gives every mount its care every
// few seconds until SIGTERM. Returns the exit status, as RunWorker does.
int RunMountKeeper();

// Finishes or undoes what an earlier end left half done, before any worker serves; what can't be done is
// logged. Uses the database and closes it.
void RecoverMountsAtStart();

}  // namespace korv
