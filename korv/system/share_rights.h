#pragma once

#include <functional>
#include <string>
#include <vector>

#include "korv/system/share_store.h"

namespace korv {

// A right to be granted on a share's folder.
struct ShareGrant {
    bool isGroup = false;
    std::string principal;  // user or group name
    bool isReadOnly = false;
};

enum class GrantStep { kJournalled, kApplied };

// Grants all of `grants`, or after a failure possibly some; adds to what there is and takes nothing from
// anyone. Each principal must exist. What a process that dies leaves half done is done by RecoverShareGrants.
// Two grants on one folder at a time don't lose each other. Throws std::system_error for the folder and what
// korv::Database() throws.
//   observer  called after each step; may be null
void GrantShareRights(const ShareRow& share, const std::vector<ShareGrant>& grants,
                      const std::function<void(GrantStep)>& observer = {});

// Completes the grants whose maker is gone. One whose volume isn't mounted now is kept for later; one whose
// principal or folder is gone, or whose folder lies on none of `volumes`, is dropped. Returns what could not
// be done, for the log.
std::vector<std::string> RecoverShareGrants(const std::vector<std::string>& volumes);

}  // namespace korv
