#include "pavane/recorder/mount_state.h"

#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"

namespace pavane {

void NoteMountState(const std::string& path, bool isNormal) {
    const auto status = isNormal ? SHARE_MOUNT_NORMAL : SHARE_MOUNT_FAILED;
    RecShare share;
    if (share.LoadByPath(path, 0) != 0 || share.GetMountType() == SHARE_MOUNT_LOCAL ||
        share.GetMountStatus() == status) {
        return;
    }
    UpdateShareMountInfo(status, share, true, true);
    PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
}

}  // namespace pavane
