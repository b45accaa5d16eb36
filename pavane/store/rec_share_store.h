#pragma once

#include <list>

#include "platform/pavane/rec_share.h"

namespace pavane {

// As LoadRecShareFromDB, with what the records say; throws (pavane/store/database.h).
std::list<RecShare> ReadRecShares(int rvId);

// Of the record in memory, for whoever saves it then; UpdateShareMountInfo keeps what is seen of a mount.
void SetMountStatus(RecShare& share, SHARE_MOUNT_STATUS status);

}  // namespace pavane
