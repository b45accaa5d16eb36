// Whether a recording share can be recorded into.

#include <string>

#include "platform/korv/configuration.h"
#include "platform/korv/filesystem.h"
#include "platform/korv/mount.h"
#include "platform/korv/share.h"
#include "platform/pavane/cms.h"
#include "platform/pavane/rec_share.h"

#include "include/run_as_scope.h"
#include "pavane/log_line.h"

namespace {

constexpr int kInOrder = 0;
constexpr int kNotInOrder = -1;

bool CanRecorderWrite(const RecShare& share) {
    const RunAsScope root = IF_RUN_AS;
    if (!root) {
        PV_LOG_LINE("pavane/recorder/share_status", "Failed to run as root.\n");
        return false;
    }
    const KORVSHARE folder{share.GetName().c_str(), share.GetPath().c_str()};
    const int rights = KLIBShareUserRightGet(KORV::GetConfiguration().serviceUser.c_str(), &folder);
    return rights > 0 && (rights & KORV_SHARE_RIGHT_WRITE) != 0;
}

bool IsFolderInOrder(const RecShare& share) {
    const bool isRemote = share.GetMountType() != SHARE_MOUNT_LOCAL;
    return IsExistDir(share.GetPath()) && (!isRemote || IsMountPoint(share.GetPath())) &&
           CanRecorderWrite(share);
}

}  // namespace

// Of a recording server's share this server sees only what its record says.
int CheckRecShareStatus(int id) {
    RecShare share;
    if (share.Load(id) != 0 || share.GetEncType() == SHARE_ENC_LOCKED) {
        return kNotInOrder;
    }
    if (share.GetOwnerRvId() != 0) {
        const bool isInOrder =
            share.GetMountStatus() == SHARE_MOUNT_NORMAL && IsRvOnline(share.GetOwnerRvId());
        return isInOrder ? kInOrder : kNotInOrder;
    }
    return IsFolderInOrder(share) ? kInOrder : kNotInOrder;
}
