#include "pavane/recorder/share_state.h"

#include <algorithm>
#include <exception>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "platform/korv/mount.h"
#include "platform/korv/share.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"
#include "pavane/store/rec_share_store.h"

namespace pavane {

namespace {

constexpr const char* kSource = "pavane/recorder/share_state";

// One statement on its own two columns, so that an edit that somebody makes at the same time isn't undone;
// and only while they are as they were loaded, so that a move noted meanwhile stays noted.
void Store(const RecShare& loaded, int encType, bool isMigrating) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    const int migrating = isMigrating;
    const int id = loaded.GetId();
    const int oldEncType = loaded.GetEncType();
    const int oldMigrating = loaded.GetMigrating();
    database.Session() << "update recording_share set enc_type = :type, migrating = :migrating"
                          " where id = :id and enc_type = :oldtype and migrating = :oldmigrating",
        soci::use(encType), soci::use(migrating), soci::use(id), soci::use(oldEncType),
        soci::use(oldMigrating);
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

bool IsLocal(const RecShare& share) {
    return share.GetOwnerRvId() == 0 && share.GetMountType() == SHARE_MOUNT_LOCAL;
}

// True when some record may no longer say what its folder is: by the kernel's list of mounts and the moves
// noted, so that a list costs nothing more while nothing has changed.
bool AreOutOfStep(const std::list<RecShare>& shares) {
    const std::vector<std::string> unlocked = ListUnlockedShareFolders();
    return std::any_of(shares.begin(), shares.end(), [&unlocked](const RecShare& share) {
        const bool isUnlocked = std::binary_search(unlocked.begin(), unlocked.end(), share.GetPath());
        return IsLocal(share) &&
               (share.GetMigrating() || isUnlocked != (share.GetEncType() == SHARE_ENC_UNLOCKED));
    });
}

// Not everything that a share stands on is known to those who look after mounts: somebody may have mounted it
// by other means, or have had it forgotten. By the kernel's list only.
bool NoteLostMounts(std::list<RecShare> shares) {
    bool hasChanged = false;
    for (RecShare& share : shares) {
        if (share.GetOwnerRvId() == 0 && share.GetMountType() != SHARE_MOUNT_LOCAL &&
            share.GetMountStatus() == SHARE_MOUNT_NORMAL && !IsMountPoint(share.GetPath())) {
            UpdateShareMountInfo(SHARE_MOUNT_FAILED, share, false, true);
            hasChanged = true;
        }
    }
    return hasChanged;
}

bool Refresh() {
    const std::list<RecShare> shares = ReadRecShares(0);  // before the folders: what is noted later holds
    const auto folders = FoldersByPath();
    bool hasChanged = NoteLostMounts(shares);
    for (const RecShare& share : shares) {
        const auto folder = folders.find(share.GetPath());
        if (!IsLocal(share) || folder == folders.end()) {
            continue;
        }
        const int encType = folder->second["encryption"].asInt();
        const bool isMigrating = folder->second["is_share_moving"].asBool();
        if (encType != share.GetEncType() || isMigrating != share.GetMigrating()) {
            Store(share, encType, isMigrating);
            hasChanged = true;
        }
    }
    return hasChanged;
}

}  // namespace

bool RefreshShareStates() {
    try {
        const bool hasChanged = Refresh();
        if (hasChanged) {
            PVClientNotify::Notify(CLIENT_NOTIFY_REC_SHARE);
        }
        return hasChanged;
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to refresh the states of shares: %s\n",
                    DescribeFailure(failure).c_str());
        return false;
    }
}

void NoteMove(const std::string& name) {
    try {
        Database& database = AppDatabase();
        WriteTransaction transaction(database);
        database.Session()
            << "update recording_share set migrating = 1 where name = :name and owner_rv_id = 0"
               " and mount_type = 0",
            soci::use(name);
        transaction.Commit();
    } catch (const std::exception& failure) {
        PV_LOG_LINE(kSource, "Failed to note that a share is moved: %s\n", DescribeFailure(failure).c_str());
    }
}

// A move ends by itself, and a folder is locked without its record: whoever sees that must not be told of the
// share as it was before.
std::list<RecShare> ReadRecSharesInStep(int rvId) {
    std::list<RecShare> shares = ReadRecShares(rvId);
    return AreOutOfStep(shares) && RefreshShareStates() ? ReadRecShares(rvId) : shares;
}

}  // namespace pavane

std::list<RecShare> LoadRecShareFromDB(int rvId) {
    try {
        return pavane::ReadRecSharesInStep(rvId);
    } catch (const std::exception& failure) {
        PV_LOG_LINE(pavane::kSource, "Failed to load the recording shares: %s\n",
                    pavane::DescribeFailure(failure).c_str());
        return {};
    }
}
