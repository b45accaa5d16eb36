#pragma once

#include <string>

#include "pavane/store/database.h"

namespace pavane {

// Where a recording share's folder is.
struct FolderPlace {
    int ownerRvId = 0;
    std::string name;
    std::string path;
};

// Has every row that names the folder, or a path below it, name its new place: cameras of its owner, the
// owner's remote shares that are mounted in it, and, when that is this server, archive tasks, the snapshot
// share, backup folders and what applications keep in it. A remote share stays where it was if there is a
// record of the new path already. Belongs into the transaction that changes the record. Throws
// (pavane/store/database.h).
void FollowRename(Database& database, const FolderPlace& from, const FolderPlace& to);

}  // namespace pavane
