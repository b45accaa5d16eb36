#pragma once

namespace korv {

// Puts in order what processes that died have left half done with shares, takes away what their proofs of
// keys have left mounted, and brings Samba's view up to date.
// To be called as root before any worker serves. Uses the database and closes it, so that the caller may fork
// afterwards. What can't be done now is logged and tried again by workers before they create or grant. Throws
// when the database can't be used.
void RecoverShares();

// The same for a worker, which does so before it decides whether a name is free: finishes or undoes what dead
// processes have left of changes, and tells Samba of shares that got another name or went that way. Costs
// four small queries when there is nothing to do.
void RecoverDeadMakers();

}  // namespace korv
