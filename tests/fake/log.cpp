#include "platform/pavane/log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "tests/fake/director.h"

DbgLogCfg* g_pDbgLogCfg = nullptr;

void PVPrintf(LOG_TYPE type, const char* category, const char* level, const char* file, int line,
              const char* function, const char* format, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (fake::CurrentDirector() == nullptr) {
        return;
    }
    if (type != LOG_TYPE_DEFAULT) {
        fake::CurrentDirector()->Misuse("PVPrintf: type " + std::to_string(type) + " instead of 0");
    }
    fake::CurrentDirector()->Log(
        {category != nullptr ? category : "", level != nullptr ? level : "", file, line, function, text});
}

template <>
const char* Enum2String<LOG_CATEG>(LOG_CATEG value) {
    switch (value) {
        case LOG_CATEG_CMS:
            return "CMS";
        case LOG_CATEG_SHARE:
            return "SHARE";
        default:
            return "unknown";
    }
}

template <>
const char* Enum2String<LOG_LEVEL>(LOG_LEVEL value) {
    switch (value) {
        case LOG_LEVEL_ERR:
            return "ERR";
        case LOG_LEVEL_DEBUG:
            return "DEBUG";
        case LOG_LEVEL_TRACE:
            return "TRACE";
        default:
            return "unknown";
    }
}
