#pragma once

#include <string>

#include "korv/system/cipher_folder.h"
#include "korv/system/share_store.h"

// Shares whose files are encrypted: locked, their folder is empty and admits nobody; unlocked, the plain
// files are mounted over it. All need saved uid 0 and become root for their own length.
namespace korv {

CipherFolder CipherOf(const ShareRow& share);

// As clients see it: what the row says, and for an encrypted share whether its files can be read now. Asks
// the mount in a child; at most 5 seconds.
ShareEncryption EncryptionOf(const ShareRow& share);

// Unmounts whatever is left of a mount that answers no more, then mounts. kMounted counts as done.
CipherEnd UnlockShare(const ShareRow& share, const std::string& password);

// kBusy while files of it are in use. A share that is locked already is a success.
CipherEnd LockShare(const ShareRow& share);

// Out of sight for a moment, since a folder where something is mounted can't be renamed: takes the plain
// files from the share's folder to a hidden one. False when they are not mounted. Throws ChangeFailure (kBusy
// while somebody uses them) and std::system_error; nothing has changed then.
bool TakeMountAside(const ShareRow& share);

// Brings them from the hidden place to the share's folder, under whatever name it has now; nothing to do when
// they are not there. Throws std::system_error.
void PutMountBack(const ShareRow& share);

}  // namespace korv
