#pragma once

#include <string>

#include "korv/system/cipher_folder.h"

namespace korv {

// kDone when `password` opens the cipher folder, whether or not that is mounted: it is mounted at a place of
// its own for a moment, where only root can go.
//   token  names that place
CipherEnd ProvePassword(const CipherFolder& folder, const std::string& token, const std::string& password);

}  // namespace korv
