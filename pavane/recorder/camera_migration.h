#pragma once

#include <string>

namespace pavane {

// A camera whose recordings are being moved to another place has a file, GetRecMigrateTmpFilePath, for as
// long as that takes. Whoever moves them makes and removes it.

// Makes the file of the camera `camId`, whose recordings are moved out of `sourceDir`, its recording folder;
// an older file is replaced. Throws std::invalid_argument when there is no such camera of this server or
// `sourceDir` can't stand in the file, std::system_error, and what pavane/store/database.h says.
void StartCameraMigration(int camId, const std::string& sourceDir);

// Removes it; false when there was none. Throws std::system_error.
bool StopCameraMigration(int camId);

}  // namespace pavane
