#pragma once

#include <string>

// Whether `user` holds at least one right of `mask` on the existing shared folder `name`: 0 when so, -1
// otherwise.
//   mask  KORV_SHARE_RIGHT bits
// Opens the root scope for the query.
int CheckSharePrivilege(const std::string& name, const std::string& user, unsigned int mask);
