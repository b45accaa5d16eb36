#pragma once

#include <atomic>
#include <cstdint>

// The application's diagnostic log. Implemented in pavane/recorder/log.cpp.

enum LOG_TYPE : int {
    LOG_TYPE_DEFAULT = 0,
};

// Log categories: who speaks. Only those that are used here have a name of their own.
enum LOG_CATEG : int {
    LOG_CATEG_CMS = 15,
    LOG_CATEG_SHARE = 46,
    LOG_CATEG_COUNT = 64,
};

// Log levels: the higher, the more talkative.
enum LOG_LEVEL : int {
    LOG_LEVEL_NONE = 0,
    LOG_LEVEL_ERR = 1,
    LOG_LEVEL_WARN = 2,
    LOG_LEVEL_NOTICE = 3,
    LOG_LEVEL_INFO = 4,
    LOG_LEVEL_DEBUG = 5,
    LOG_LEVEL_TRACE = 6,
};

// A level that holds for one process whatever its categories' levels say.
struct DbgLogPidLevel {
    std::atomic<std::int32_t> pid;
    std::atomic<std::int32_t> level;
};

// The log configuration that all processes share through one memory map.
//   level     the most talkative level written, by category
//   pidCount  how many rows of `pidLevel` are in use
struct DbgLogCfg {
    static constexpr int kMaxPids = 32;

    std::atomic<std::int32_t> level[LOG_CATEG_COUNT];
    std::atomic<std::int32_t> pidCount;
    DbgLogPidLevel pidLevel[kMaxPids];
};

// Null until the map has been made or when it cannot be opened.
extern DbgLogCfg* g_pDbgLogCfg;

// Writes one entry: time, category and level (left out when null), file, line, function, then the text of
// `format` with its arguments. Never fails; an entry that can't be written is lost. Safe between processes:
// one write each.
//   category, level  names as Enum2String gives them, or null for an entry that is always written
//   file             the source's name, without folder of the build
void PVPrintf(LOG_TYPE type, const char* category, const char* level, const char* file, int line,
              const char* function, const char* format, ...) __attribute__((format(printf, 7, 8)));

// The name of a log category or level, "unknown" for a value without one. The text lives for ever.
template <class Enumeration>
const char* Enum2String(Enumeration value);

template <>
const char* Enum2String<LOG_CATEG>(LOG_CATEG value);
template <>
const char* Enum2String<LOG_LEVEL>(LOG_LEVEL value);
