#pragma once

#include <list>

#include "platform/pavane/rec_share.h"

namespace pavane {

// As LoadRecShareFromDB, with what the records say.
std::list<RecShare> LoadRecShares(int rvId);

}  // namespace pavane
