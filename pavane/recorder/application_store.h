#pragma once

#include <list>
#include <map>
#include <optional>
#include <string>

// Which of the package's applications are switched off or can't run, and which shared folders applications
// use. Failures are thrown (pavane/store/database.h).
namespace pavane {

struct ApplicationFlags {
    bool isCompatible = true;
    bool isEnabled = true;
};

// By application id; applications that are as they come are missing.
using ApplicationFlagsById = std::map<int, ApplicationFlags>;

ApplicationFlagsById ReadApplicationFlags();

ApplicationFlags FlagsOf(const ApplicationFlagsById& flags, int applicationId);

// What is to become different; nothing = stays.
struct ApplicationChange {
    std::optional<bool> isCompatible;
    std::optional<bool> isEnabled;
};

void WriteApplicationFlags(int applicationId, const ApplicationChange& change);

inline constexpr int kNoShare = -1;

// That an application keeps data in a shared folder. Stays when the folder's recording share is deleted.
struct ApplicationStorage {
    std::string name;  // of the folder
    int shareId = 0;   // recording share of this server; below 0 = it is none
    int applicationId = 0;
};

struct ApplicationStoragePage {
    std::list<ApplicationStorage> rows;
    int total = 0;
};

// By name, share and application: at most `limit`, after skipping `offset`; `total` counts all.
ApplicationStoragePage ListApplicationStorage(int offset, int limit);

enum class StorageAddition { kAdded, kWasThere, kNoSuchShare };

// Adds the row unless it is there. Its share must be there or be kNoShare.
StorageAddition AddApplicationStorage(const ApplicationStorage& row);

// False when there was no such row.
bool RemoveApplicationStorage(const ApplicationStorage& row);

}  // namespace pavane
