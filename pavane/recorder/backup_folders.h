#pragma once

#include <cstdint>
#include <list>
#include <string>

namespace pavane {

// A shared folder that the application uses and a backup should know of.
struct BackupFolder {
    std::string name;
    std::int64_t added_s = 0;  // since 1970
};

// All of them, by name. Throws (pavane/store/database.h).
std::list<BackupFolder> ListBackupFolders();

}  // namespace pavane
