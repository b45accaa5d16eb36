#pragma once

#include <optional>
#include <string>
#include <vector>

#include "korv/system/process_identity.h"
#include "korv/system/share_store.h"

// The journals of shares being renamed and removed, in korv.db. All functions use korv::Database() and throw
// what it throws; those that change something expect the caller's WriteTransaction.
namespace korv {

// A row of the table share_rename: the share of `token` is about to be called `name`.
struct ShareRenameRow {
    std::string token;
    std::string name;
    ProcessIdentity maker;
};

// A row of the table share_removal.
struct ShareRemovalRow {
    std::string token;
    std::string name;
    std::string volPath;
    bool isHidden = false;
    long long nextTry_s = 0;
    ProcessIdentity maker;
};

void AddShareRename(const ShareRenameRow& row);
// Makes the row that of `maker`; of nobody, whoever recovers next takes it up.
void SaveShareRenameMaker(const std::string& token, const ProcessIdentity& maker);
void DropShareRename(const std::string& token);
std::vector<ShareRenameRow> ListShareRenames();

// Replaces what is known of that token.
void SaveShareRemoval(const ShareRemovalRow& row);
// As SaveShareRenameMaker.
void SaveShareRemovalMaker(const std::string& token, const ProcessIdentity& maker);
// Lets the next attempt wait until `until_s`, unless the removal has got further since it was seen with
// `isHidden`.
void PostponeShareRemoval(const std::string& token, bool isHidden, long long until_s);
void DropShareRemoval(const std::string& token);
std::vector<ShareRemovalRow> ListShareRemovals();

// True when somebody is about to rename or remove the share of `token`.
bool IsShareBeingRenamedOrRemoved(const std::string& token);

// The same, or its data are being moved.
bool IsShareChanging(const std::string& token);

// Takes the remote mounts in the folder `oldPath` along to `newPath`.
void RenameMountRows(const std::string& oldPath, const ShareRow& renamed);
// Whether a remote mount is known in the share `name`.
bool HasMountRows(const std::string& name);

}  // namespace korv
