#pragma once

#include "korv/system/share_store.h"

namespace korv {

// True when anything but the share's own plain files is mounted at or in its folder, or a remote folder is
// known to be mounted in it now and then. Uses korv::Database() and throws what it throws.
bool HasMountsInside(const ShareRow& share);

}  // namespace korv
