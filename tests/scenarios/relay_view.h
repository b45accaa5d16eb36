#pragma once

#include <string>

#include <json/json.h>

#include "webapi/include/cms_relay.h"

namespace scenario {

// The flags that are set, by name, in the order of their declaration.
Json::Value FlagsSet(const CmsRelayParams& params);

// False when there is no such flag.
bool SwitchFlag(CmsRelayParams& params, const std::string& name, bool isSet);

// The members that differ from a fresh target.
Json::Value Shown(const CmsRelayTarget& target);

}  // namespace scenario
