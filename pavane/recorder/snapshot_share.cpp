// The recording share that keeps snapshots: its path is a setting of the application.

#include <exception>
#include <list>
#include <string>

#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"
#include "pavane/store/settings_table.h"

namespace {

constexpr const char* kSource = "pavane/recorder/snapshot_share";
constexpr const char* kSetting = "snapshot_share";

}  // namespace

std::string GetSnapshotSharePath(bool create) {
    try {
        std::string path = pavane::GetSetting(kSetting, "");
        if (!path.empty() || !create) {
            return path;
        }
        const std::list<std::string> candidates = LoadRecSharePath(0);
        if (!candidates.empty()) {
            path = candidates.front();
            pavane::SetSetting(kSetting, path);
        }
        return path;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to read the snapshot share: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return "";
    }
}

int HandleSnapshotShareDelete() {
    try {
        pavane::SetSetting(kSetting, "");
        return 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to forget the snapshot share: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return -1;
    }
}
