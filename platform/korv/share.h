#pragma once

#include <string>
#include <vector>

#include <json/json.h>

// Shared folders of the NAS and who may do what there. Implemented in korv/system/share.cpp and
// share_access.cpp and korv/services/local_share_list.cpp.

// Rights of a user on a shared folder, as bits.
enum KORV_SHARE_RIGHT : int {
    KORV_SHARE_RIGHT_WRITE = 1,
    KORV_SHARE_RIGHT_READ = 2,
};

// The system's record of a shared folder. Texts are NUL-terminated and belong to the record.
struct KORVSHARE {
    const char* name;
    const char* path;
};

// Looks up the shared folder `name`, without regard to case; what is mounted from an external disk is one too
// ("usbshare2"). Needs saved uid 0, not root: for the look at external disks it becomes root itself.
//   share  out: the record, freed with KORVShareFree; null after a failure
// 0 on success, -1 when there is none or it cannot be read.
int KORVShareGet(const char* name, KORVSHARE** share);

// Frees a record; null is allowed.
void KORVShareFree(KORVSHARE* share);

// The rights of `user` on a shared folder as the kernel would judge them (KORV_SHARE_RIGHT bits, 0 = none),
// -1 on failure. Needs root. A folder that doesn't answer within the platform's deadline is open to
// administrators, whom every share admits, and a failure for others; the platform's log says so, but for
// administrators and a volume that is silent as a whole: KORVMountVolInfoGet fails for them next.
int KLIBShareUserRightGet(const char* user, const KORVSHARE* share);

// The system's list of shared folders: an array of objects with "name", "vol_path" and "enable_share_cow".
//   list       out; unchanged after a failure
//   withState  true: with each folder's encryption and move state, which this platform gives in any case
// 0 on success.
int GetLocalShareListByWebApi(Json::Value& list, bool withState);

// A shared folder that was renamed: where it was before its last rename, and what it is now.
struct KORVRENAMEDSHARE {
    std::string formerPath;
    std::string name;
    std::string path;
    std::string description;
    bool isHidden = false;
};

// The shared folders that were renamed, but for those whose former place another one has had since. So a
// record of a folder at such a place, made when the folder was there, is one that does not know of the
// rename.
//   list  out; unchanged after a failure, which the platform's log has
// 0 on success. Reads the list of shared folders only: no file system is asked.
int ListRenamedShareFolders(std::vector<KORVRENAMEDSHARE>& list);

// The paths of the encrypted shared folders that are unlocked, sorted, by the kernel's list of mounts: no
// file system is asked. None when it can't be read.
std::vector<std::string> ListUnlockedShareFolders();
