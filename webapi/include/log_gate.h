#pragma once

#include "platform/pavane/log.h"

// Decides whether a log entry is written at all. Its text and arguments are built only once it is.

// True when the shared log configuration lets this process write entries of `level`: the first row that names
// the process decides; without one only level 0 passes. False without a shared configuration.
bool ChkPidLevel(LOG_LEVEL level);

// True when an entry of `category` and `level` is to be written. Without a shared configuration only errors
// are.
bool IsLogAdmitted(LOG_CATEG category, LOG_LEVEL level);

// Writes a gated entry; the arguments after the format are evaluated only when the gate admits it.
#define PV_LOG_AT(category, level, file, line, function, ...)                                            \
    (IsLogAdmitted(category, level)                                                                      \
         ? static_cast<void>(PVPrintf(LOG_TYPE_DEFAULT, Enum2String<LOG_CATEG>(category),                \
                                      Enum2String<LOG_LEVEL>(level), file, line, function, __VA_ARGS__)) \
         : static_cast<void>(0))
