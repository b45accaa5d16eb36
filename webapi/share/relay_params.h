#pragma once

#include <string>

#include "webapi/include/cms_relay.h"

// Puts the settings of a share, as a creation and an edit carry them, into `target.relayRequest`, which
// already names the method. The server that receives it owns the share, so "rvId" is 0 there.
void FillShareRelayParam(CmsRelayTarget& target, bool blHideShare, bool blEncryption, bool blRecLimit,
                         int recLimitGB, const std::string& shareName, const std::string& description,
                         const std::string& encPasswd);
