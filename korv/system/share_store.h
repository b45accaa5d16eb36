#pragma once

#include <optional>
#include <string>
#include <vector>

#include "korv/system/process_identity.h"

// The rows of shares in korv.db, and of the two journals beside them. All functions use korv::Database() and
// throw what it throws; those that change something expect the caller's WriteTransaction.
namespace korv {

// Whether a share is encrypted, as clients see it ("encryption").
enum class ShareEncryption : int {
    kNone = 0,
    kLocked = 1,
    kUnlocked = 2,
};

// A row of the table share.
struct ShareRow {
    std::string name;
    std::string volPath;
    std::string token;  // marks the folder
    std::string description;
    bool isHidden = false;
    ShareEncryption encryption = ShareEncryption::kNone;
    bool isCow = true;
    bool isFileIndexed = false;
    bool isModifyDisabled = false;
    bool isMoving = false;
    long long created_s = 0;

    std::string Path() const { return volPath + "/" + name; }
};

// A row of the table share_creation: a share that `maker` is about to make.
struct ShareCreationRow {
    ShareRow share;
    ProcessIdentity maker;
};

// A row of the table share_grant: a right that `maker` is about to grant.
struct ShareGrantRow {
    long long id = 0;
    std::string shareName;
    bool isGroup = false;
    std::string principal;
    bool isReadOnly = false;
    ProcessIdentity maker;
};

// All shares by name.
std::vector<ShareRow> ListShares();

// The share of exactly that name.
std::optional<ShareRow> FindShare(const std::string& name);

// The share whose name differs from `name` in case at most.
std::optional<ShareRow> FindShareOfAnyCase(const std::string& name);

std::optional<ShareRow> FindShareByToken(const std::string& token);

// A share that was renamed, and where its folder was before that.
struct RenamedShare {
    std::string formerPath;
    ShareRow share;
};

// All that were renamed, each by its last rename alone; none whose former place another share has had since.
std::vector<RenamedShare> ListRenamedShares();

// True when a share, or one that is being made or renamed, has that name or one that differs in case only.
//   exceptToken  of a share that doesn't count; may be empty
bool IsShareNameTaken(const std::string& name, const std::string& exceptToken = "");

void AddShareCreation(const ShareCreationRow& row);
void DropShareCreation(const std::string& token);
std::vector<ShareCreationRow> ListShareCreations();
std::optional<ShareCreationRow> FindShareCreation(const std::string& token);
// Leaves the row to whoever recovers next.
void AbandonShareCreation(const std::string& token);

void AddShare(const ShareRow& share);
// Writes name, description and whether it is hidden into the row of the share's token. Its grants follow. A
// name that differs from the one it had leaves that one as the former name.
void SaveShareFacts(const ShareRow& share);
// kNone or kLocked: whether it is unlocked is seen, not stored.
void SaveShareEncryption(const std::string& token, ShareEncryption encryption);
void SaveShareMoving(const std::string& token, bool isMoving);
// Takes the row out, and the grants on it.
void DropShare(const std::string& token);

// Adds the row and sets its id.
void AddShareGrant(ShareGrantRow& row);
void DropShareGrant(long long id);
std::vector<ShareGrantRow> ListShareGrants();

}  // namespace korv
