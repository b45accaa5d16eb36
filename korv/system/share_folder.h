#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

#include "korv/system/acl.h"
#include "korv/system/file_descriptor.h"

// The folders of shares. A new folder is made under a hidden name beside its place, made ready there, and
// appears under its own name in one step. All paths are resolved beneath the volume without following
// symbolic links. All functions need saved uid 0, become root for their own length, and throw
// std::system_error.
namespace korv {

// What has just been done to a folder that is being made.
enum class FolderStep { kMade, kSecured, kMarked };

// Opens the volume at `path`, which must be the root of a mount.
FileDescriptor OpenVolume(const std::string& path);

// Opens the folder `name` of a volume for reading its entries.
FileDescriptor OpenShareFolder(int volume, const std::string& name);

// Makes the hidden folder of `token`: a subvolume on Btrfs; owner root, rights for root and the group
// `administrators` alone; marked with the token. Written to the disk when this returns.
//   isCow  false: files in it are written in place where the file system would copy on write (Btrfs)
//   done   called after each step
void MakeStagedFolder(int volume, const std::string& token, bool isCow,
                      const std::function<void(FolderStep)>& done);

// Gives the hidden folder of `token` its name. False when there is something of that name, whatever it is.
bool PublishStagedFolder(int volume, const std::string& token, const std::string& name);

// Removes the hidden folder of `token`, which is empty, if it is there.
void RemoveStagedFolder(int volume, const std::string& token);

// Removes the folder `name`, which is empty; a folder with something in it is a failure.
void RemoveShareFolder(int volume, const std::string& name);

// True when the folder `name` is there and was made with `token`.
bool IsFolderOfToken(int volume, const std::string& name, const std::string& token);

// Gives the folder `name` another one. False when there is something of that name, whatever it is. A folder
// where something is mounted can't be renamed.
bool RenameShareFolder(int volume, const std::string& name, const std::string& newName);

// Where the folder of the removed share with `token` waits for its removal, from the volume on.
std::string RemovedFolderName(const std::string& token);

// Takes the folder `name` out of sight, under RemovedFolderName, if it is there and was made with `token`;
// anything else of that name is left alone.
void HideShareFolder(int volume, const std::string& name, const std::string& token);

// Makes the folder open as `folder` one that belongs to root and admits the group `administrators` alone,
// passes that on to what will be made in it, and marks it with `token`.
void SecureShareFolder(int folder, const std::string& token);

// Takes every right on the hidden folder of `token` from everybody but root: it will be a place to mount at.
void CloseStagedFolder(int volume, const std::string& token);

// Grants `rights` (kAclReadOnly or kAclReadWrite) on a folder and on what will be made in it; what is in it
// already is left alone.
void GrantOnFolder(int folder, const AclPrincipal& grantee, unsigned rights);

}  // namespace korv
