// The process-wide log level and the tagged messages.
//
// Tagged messages read " [TAG] <method>:<line> <text>" and are gated by the level: debug only at
// level 0, info at 0 and 1, error at 0 to 2; level 3 silences them all. Debug and info go out at
// the log's default type, error at its error type. A message that the level or the type excludes
// is dropped before any argument is evaluated or formatted.
//
// Untagged messages use os_log_with_type directly and ignore the level.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/log/os_log.h"

// Initial value 1 (info and error). Read with relaxed loads; written by LMLogSetLogLevel.
extern std::atomic<uint32_t> __LMLogLevel;

// Accepts 0 to 3; a larger value (a negative one converted, too) is ignored.
void LMLogSetLogLevel(uint32_t level);

// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define LM_LOG_TAGGED_AT(maxLevel, type, tag, method, line, format, ...)                  \
    do {                                                                                  \
        if (__LMLogLevel.load(std::memory_order_relaxed) < (maxLevel)) {                  \
            os_log_with_type(OS_LOG_DEFAULT, type, " [" tag "] %{public}s:%d " format,    \
                             method, static_cast<int>(line) __VA_OPT__(, ) __VA_ARGS__);  \
        }                                                                                 \
    } while (0)

// `method` is the emitting method's full name, e.g. "-[LMDaemonProxy init]".
#define LM_LOG_DEBUG_AT(method, line, format, ...) \
    LM_LOG_TAGGED_AT(1u, OS_LOG_TYPE_DEFAULT, "DEBUG", method, line, format, __VA_ARGS__)
#define LM_LOG_INFO_AT(method, line, format, ...) \
    LM_LOG_TAGGED_AT(2u, OS_LOG_TYPE_DEFAULT, "INFO", method, line, format, __VA_ARGS__)
#define LM_LOG_ERROR_AT(method, line, format, ...) \
    LM_LOG_TAGGED_AT(3u, OS_LOG_TYPE_ERROR, "ERROR", method, line, format, __VA_ARGS__)

#define LM_LOG_DEBUG(method, format, ...) LM_LOG_DEBUG_AT(method, __LINE__, format, __VA_ARGS__)
#define LM_LOG_INFO(method, format, ...) LM_LOG_INFO_AT(method, __LINE__, format, __VA_ARGS__)
#define LM_LOG_ERROR(method, format, ...) LM_LOG_ERROR_AT(method, __LINE__, format, __VA_ARGS__)
// NOLINTEND(cppcoreguidelines-macro-usage)
