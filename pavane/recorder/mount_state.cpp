#include "pavane/recorder/mount_state.h"

#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"

namespace pavane {

void NoteMountState(const std::string& path, bool isNormal) {
    const auto status = isNormal ? SHARE_MOUNT_NORMAL : SHARE_MOUNT_FAILED;
    RecShare share;
    if (share.LoadByPath(path, 0) != 0 || share.GetMountType() == SHARE_MOUNT_LOCAL) {
        return;
    }
    const auto oldType = share.GetFsType();
    const bool isChanged = share.GetMountStatus() != status;
    // A share that was taken on while its server was silent has no facts yet.
    if (isChanged || (isNormal && oldType == FSTYPE_UNKNOWN)) {
        UpdateShareMountInfo(status, share, true, false);
    }
    if (isChanged || share.GetFsType() != oldType) {
        PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
    }
}

}  // namespace pavane
