#include "pavane/recorder/share_state.h"

#include <exception>
#include <map>
#include <string>

#include <json/json.h>

#include "platform/korv/share.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/recorder/share_state";

// One statement, so that an edit that somebody makes at the same time isn't undone by a record that was
// loaded before.
void Store(int id, int encType, bool isMigrating) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    const int migrating = isMigrating;
    database.Session()
        << "update recording_share set enc_type = :type, migrating = :migrating where id = :id",
        soci::use(encType), soci::use(migrating), soci::use(id);
    transaction.Commit();
}

std::map<std::string, Json::Value> FoldersByPath() {
    Json::Value list;
    std::map<std::string, Json::Value> folders;
    if (GetLocalShareListByWebApi(list, true) == 0) {
        for (const Json::Value& folder : list) {
            folders[folder["path"].asString()] = folder;
        }
    }
    return folders;
}

bool Refresh() {
    const auto folders = FoldersByPath();
    bool hasChanged = false;
    for (const RecShare& share : LoadRecShareFromDB(0)) {
        const auto folder = folders.find(share.GetPath());
        if (share.GetOwnerRvId() != 0 || share.GetMountType() != SHARE_MOUNT_LOCAL ||
            folder == folders.end()) {
            continue;
        }
        const int encType = folder->second["encryption"].asInt();
        const bool isMigrating = folder->second["is_share_moving"].asBool();
        if (encType != share.GetEncType() || isMigrating != share.GetMigrating()) {
            Store(share.GetId(), encType, isMigrating);
            hasChanged = true;
        }
    }
    return hasChanged;
}

}  // namespace

void RefreshShareStates() {
    try {
        if (Refresh()) {
            PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
        }
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to refresh the states of shares: %s\n",
                    DescribeFailure(failure).c_str());
    }
}

}  // namespace pavane
