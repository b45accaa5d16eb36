#pragma once

#include <string>
#include <vector>

#include "korv/system/cipher_folder.h"

namespace korv {

// kDone when `password` opens the cipher folder, whether or not that is mounted: it is mounted at a place of
// its own for a moment, where only root can go. What a proof that was killed has left there is taken away
// first. Proofs of one token don't overlap; kBusy after half a minute of waiting.
//   token  names that place
CipherEnd ProvePassword(const CipherFolder& folder, const std::string& token, const std::string& password);

// Takes away what proofs have left mounted that were killed. Returns what could not be done, for the log.
std::vector<std::string> ClearLeftProofs();

}  // namespace korv
