#include "korv/system/share_use.h"

#include <algorithm>

#include "korv/system/encrypted_share.h"
#include "korv/system/mount_table.h"
#include "korv/system/share_change_store.h"

namespace korv {

bool HasMountsInside(const ShareRow& share) {
    const std::string cipher = CipherOf(share).CipherPath();
    const auto mounts = ReadMounts();
    return HasMountRows(share.name) || std::any_of(mounts.begin(), mounts.end(), [&](const Mount& mount) {
               return mount.mountPoint.starts_with(share.Path() + "/") ||
                      (mount.mountPoint == share.Path() && mount.source != cipher);
           });
}

}  // namespace korv
