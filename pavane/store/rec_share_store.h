#pragma once

#include <list>

#include "platform/pavane/rec_share.h"

namespace pavane {

// As LoadRecShareFromDB, with what the records say; throws (pavane/store/database.h).
std::list<RecShare> ReadRecShares(int rvId);

}  // namespace pavane
