#include "pavane/recorder/share_state.h"

#include <algorithm>
#include <exception>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <json/json.h>
#include <soci/soci.h>

#include "platform/korv/mount.h"
#include "platform/korv/share.h"
#include "platform/pavane/events.h"
#include "platform/pavane/rec_share.h"
#include "platform/pavane/services.h"

#include "pavane/log_line.h"
#include "pavane/store/database.h"
#include "pavane/store/folder_rename.h"
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

using RenamedFolders = std::map<std::string, KORVRENAMEDSHARE>;

RenamedFolders RenamedByFormerPath() {
    std::vector<KORVRENAMEDSHARE> list;
    if (ListRenamedShareFolders(list) != 0) {
        return {};
    }
    RenamedFolders renamed;
    for (const KORVRENAMEDSHARE& folder : list) {
        renamed[folder.formerPath] = folder;
    }
    return renamed;
}

// True when some record may no longer say what its folder is: by the kernel's list of mounts, the moves noted
// and the list of renamed folders, so that a list costs little more while nothing has changed.
bool AreOutOfStep(const std::list<RecShare>& shares) {
    const std::vector<std::string> unlocked = ListUnlockedShareFolders();
    const RenamedFolders renamed = RenamedByFormerPath();
    return std::any_of(shares.begin(), shares.end(), [&](const RecShare& share) {
        const bool isUnlocked = std::binary_search(unlocked.begin(), unlocked.end(), share.GetPath());
        return IsLocal(share) &&
               (share.GetMigrating() || isUnlocked != (share.GetEncType() == SHARE_ENC_UNLOCKED) ||
                renamed.contains(share.GetPath()));
    });
}

// False when the record is another's, or elsewhere, by now: somebody else was faster.
bool Follow(const RecShare& share, const KORVRENAMEDSHARE& folder) {
    Database& database = AppDatabase();
    WriteTransaction transaction(database);
    const int id = share.GetId(), isHidden = folder.isHidden;
    int others = 0;
    database.Session() << "select count(*) from recording_share where owner_rv_id = 0 and path = :path",
        soci::use(folder.path), soci::into(others);
    if (others != 0) {  // the folder is that record's
        return false;
    }
    soci::statement update =
        (database.Session().prepare
             << "update recording_share set name = :name, path = :path,"
                " description = :text, hidden = :hidden where id = :id and path = :former",
         soci::use(folder.name), soci::use(folder.path), soci::use(folder.description), soci::use(isHidden),
         soci::use(id), soci::use(folder.formerPath));
    update.execute(true);
    if (update.get_affected_rows() != 1) {
        return false;
    }
    FollowRename(database, {0, share.GetName(), folder.formerPath}, {0, folder.name, folder.path});
    transaction.Commit();
    CheckToUpdatePVServiceLink({share.GetName(), folder.name});
    return true;
}

// Who renames a share may die before its record says so, or not know of the record at all.
bool FollowRenamedFolders(const std::list<RecShare>& shares) {
    const RenamedFolders renamed = RenamedByFormerPath();
    bool hasChanged = false;
    for (const RecShare& share : shares) {
        const auto folder = renamed.find(share.GetPath());
        if (IsLocal(share) && folder != renamed.end()) {
            hasChanged = Follow(share, folder->second) || hasChanged;
        }
    }
    return hasChanged;
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
    bool hasChanged = FollowRenamedFolders(ReadRecShares(0));
    const std::list<RecShare> shares = ReadRecShares(0);  // before the folders: what is noted later holds
    const auto folders = FoldersByPath();
    hasChanged = NoteLostMounts(shares) || hasChanged;
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
