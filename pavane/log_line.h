#pragma once

#include "platform/pavane/log.h"

// Writes an entry of the application side that no level gates: something went wrong that an operator should
// know. `file` is the source's name from the root of the tree, without suffix.
#define PV_LOG_LINE(file, ...)                                                                       \
    PVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, file, __LINE__, static_cast<const char*>(__func__), \
             __VA_ARGS__)
