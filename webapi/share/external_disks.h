#pragma once

#include <string>

#include <json/json.h>

// Appends the usable partitions of external disks to `result`["sharelist"], each {"value", "freesize" (MB),
// "display"}, when `user` holds a right of `mask` on the external share there.
//   deviceType  KORV_EXT_DEVICE_TYPE
// -1 for another device type, else 0, also when a step fails (it is logged and adds nothing).
int ExtShareListEnum(Json::Value& result, const std::string& user, int deviceType, unsigned int mask);
