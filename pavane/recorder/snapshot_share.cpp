// The recording share that keeps snapshots: its path is a setting of the application.

#include "pavane/recorder/snapshot_share.h"

#include <exception>
#include <list>
#include <string>

#include <soci/soci.h>

#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"
#include "pavane/store/settings_table.h"

namespace {

constexpr const char* kSource = "pavane/recorder/snapshot_share";
constexpr const char* kSetting = "snapshot_share";

}  // namespace

namespace pavane {

std::string ReadSnapshotShare() { return GetSetting(kSetting, ""); }

bool ChooseSnapshotShare(const std::string& path) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    int count = 0;
    database.Session() << "select count(*) from recording_share where owner_rv_id = 0 and path = :path",
        soci::into(count), soci::use(path);
    if (count == 0) {
        return false;
    }
    SetSetting(kSetting, path);
    transaction.Commit();
    return true;
}

void ForgetSnapshotShare() { SetSetting(kSetting, ""); }

}  // namespace pavane

std::string GetSnapshotSharePath(bool create) {
    try {
        std::string path = pavane::ReadSnapshotShare();
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
        pavane::ForgetSnapshotShare();
        return 0;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to forget the snapshot share: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return -1;
    }
}
