#include "korv/system/share_rights.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>

#include "korv/system/accounts.h"
#include "korv/system/database.h"
#include "korv/system/share_folder.h"

namespace korv {

namespace {

std::optional<AclPrincipal> FindPrincipal(const ShareGrantRow& row) {
    if (row.isGroup) {
        const auto group = FindGroup(row.principal);
        return group ? std::optional(AclPrincipal{true, group->gid, {}}) : std::nullopt;
    }
    const auto user = FindUser(row.principal);
    return user ? std::optional(AclPrincipal{false, user->uid, GroupsOf(*user)}) : std::nullopt;
}

// Applies one grant and takes it out of the journal. Called with the write lock held: a list is read, changed
// and written, and two processes that did so at once would lose one grant.
void Complete(const ShareRow& share, const ShareGrantRow& row) {
    if (const auto principal = FindPrincipal(row)) {
        const FileDescriptor volume = OpenVolume(share.volPath);
        const FileDescriptor folder = OpenShareFolder(volume.Get(), share.name);
        GrantOnFolder(folder.Get(), *principal, row.isReadOnly ? kAclReadOnly : kAclReadWrite);
    }
    DropShareGrant(row.id);
}

std::vector<ShareGrantRow> Journal(const ShareRow& share, const std::vector<ShareGrant>& grants) {
    std::vector<ShareGrantRow> rows;
    WriteTransaction transaction(Database());
    for (const ShareGrant& grant : grants) {
        rows.push_back({0, share.name, grant.isGroup, grant.principal, grant.isReadOnly, ThisProcess()});
        AddShareGrant(rows.back());
    }
    transaction.Commit();
    return rows;
}

void Drop(const std::vector<ShareGrantRow>& rows) {
    WriteTransaction transaction(Database());
    for (const ShareGrantRow& row : rows) {
        DropShareGrant(row.id);
    }
    transaction.Commit();
}

bool IsStillThere(const ShareGrantRow& row) {
    for (const ShareGrantRow& each : ListShareGrants()) {
        if (each.id == row.id) {
            return true;
        }
    }
    return false;
}

// Completes `row`, whose maker is gone. A folder that is gone, or on what is no volume any more, has nothing
// to grant on.
void CompleteOrDrop(const ShareGrantRow& row, const std::vector<std::string>& volumes) {
    const auto share = FindShare(row.shareName);
    if (!share) {
        return;
    }
    if (std::find(volumes.begin(), volumes.end(), share->volPath) == volumes.end()) {
        DropShareGrant(row.id);
        return;
    }
    try {
        Complete(*share, row);
    } catch (const std::system_error& error) {
        if (error.code().value() != ENOENT) {
            throw;
        }
        DropShareGrant(row.id);
    }
}

}  // namespace

void GrantShareRights(const ShareRow& share, const std::vector<ShareGrant>& grants,
                      const std::function<void(GrantStep)>& observer) {
    const std::vector<ShareGrantRow> rows = Journal(share, grants);
    const auto notify = [&observer](GrantStep step) {
        if (observer) {
            observer(step);
        }
    };
    notify(GrantStep::kJournalled);
    try {
        WriteTransaction transaction(Database());
        for (const ShareGrantRow& row : rows) {
            Complete(share, row);
            notify(GrantStep::kApplied);
        }
        transaction.Commit();
    } catch (const std::exception&) {
        // The caller is told, so nothing is left to be done later.
        Drop(rows);
        throw;
    }
}

std::vector<std::string> RecoverShareGrants(const std::vector<std::string>& volumes) {
    std::vector<std::string> troubles;
    for (const ShareGrantRow& row : ListShareGrants()) {
        if (IsRunning(row.maker) && row.maker.pid != ThisProcess().pid) {
            continue;
        }
        WriteTransaction transaction(Database());
        if (!IsStillThere(row)) {
            continue;
        }
        try {
            CompleteOrDrop(row, volumes);
            transaction.Commit();
        } catch (const std::system_error& error) {
            troubles.push_back("a grant on " + row.shareName + " is kept for later: " + error.what());
        }
    }
    return troubles;
}

}  // namespace korv
