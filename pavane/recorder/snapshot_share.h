#pragma once

#include <string>

namespace pavane {

// The recording share of this server that keeps snapshots, as GetSnapshotSharePath, but for whoever must not
// take a failure for no share. Functions throw (pavane/store/database.h).

// Its path; empty when none does.
std::string ReadSnapshotShare();

// False, and nothing changes, when no recording share of this server has that path.
bool ChooseSnapshotShare(const std::string& path);

// No share keeps snapshots from then on.
void ForgetSnapshotShare();

}  // namespace pavane
