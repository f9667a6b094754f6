// The platform log: log handles with message types, the "is this type enabled" query, the
// disabled handle, and NSLog.
//
// A message whose type is not enabled on its handle is dropped before its arguments are even
// evaluated: os_log_with_type is a macro that tests first. Enabled types come from the
// LUMARO_LOG_TYPES environment variable ("default,error" when unset; "none" silences both) and
// can be changed at run time. Messages go to standard error, one line each (time, process name
// and pid, type, text), or to the systemd journal when standard error is connected to it; a
// capture sink (LogCapture) takes them instead, for tests. A LogBatch gathers a loop's lines into
// few writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log/format.h"

enum os_log_type_t : uint8_t {
    OS_LOG_TYPE_DEFAULT = 0x00,
    OS_LOG_TYPE_INFO = 0x01,
    OS_LOG_TYPE_DEBUG = 0x02,
    OS_LOG_TYPE_ERROR = 0x10,
    OS_LOG_TYPE_FAULT = 0x11,
};

struct os_log_s {
    const char* name;
    std::atomic<uint32_t> enabledTypes;  // bit 0: default, bit 1: error; other types unused
};
using os_log_t = os_log_s*;

extern os_log_s _os_log_default;
extern os_log_s _os_log_disabled;

#define OS_LOG_DEFAULT (&_os_log_default)
#define OS_LOG_DISABLED (&_os_log_disabled)

namespace platform::log {

constexpr uint32_t kDefaultTypeBit = 1u << 0;
constexpr uint32_t kErrorTypeBit = 1u << 1;

constexpr uint32_t typeBit(os_log_type_t type) {
    return type >= OS_LOG_TYPE_ERROR ? kErrorTypeBit : kDefaultTypeBit;
}

// Where a message came from: the platform log (with handle and type) or NSLog.
struct LogRecord {
    std::string subsystem;  // the handle's name; "NSLog" for NSLog lines
    os_log_type_t type = OS_LOG_TYPE_DEFAULT;
    bool isNSLog = false;
    std::string text;
};

// Sets which types the default log accepts (a mask of the bits above).
void setEnabledTypes(uint32_t mask);
uint32_t enabledTypes();

void logMessage(os_log_t log, os_log_type_t type, std::string_view format,
          std::initializer_list<FormatArg> args);
void emitNSLog(std::string_view format, std::initializer_list<FormatArg> args);

// While alive, the lines that this thread writes to standard error are gathered and written
// together, whenever 64 KiB have gathered and when the last batch of the thread ends, instead of
// one write per line. The journal and a capture take each message at once as before. For loops
// that log a line per item; nests.
class LogBatch {
public:
    LogBatch();
    ~LogBatch();
    LogBatch(const LogBatch&) = delete;
    LogBatch& operator=(const LogBatch&) = delete;
};

// While alive, every message is handed to this object instead of the process's backend.
// One capture at a time; thread-safe.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    std::vector<std::string> texts() const;  // the text of each record, in order
    size_t count(std::string_view text) const;  // how many records have exactly this text
    void clear();

private:
    friend void deliver(LogRecord&&);
    void add(LogRecord&& record);
    struct State;
    State* state_;
};

}  // namespace platform::log

inline bool os_log_type_enabled(os_log_t log, os_log_type_t type) {
    return (log->enabledTypes.load(std::memory_order_relaxed) & platform::log::typeBit(type)) != 0;
}

// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define os_log_with_type(handle, msgType, format, ...)                                   \
    do {                                                                                 \
        os_log_t lm_log_handle_ = (handle);                                              \
        const os_log_type_t lm_log_type_ = (msgType);                                    \
        if (os_log_type_enabled(lm_log_handle_, lm_log_type_)) {                         \
            ::platform::log::logMessage(lm_log_handle_, lm_log_type_, format, {__VA_ARGS__}); \
        }                                                                                \
    } while (0)

#define os_log(handle, format, ...) \
    os_log_with_type(handle, OS_LOG_TYPE_DEFAULT, format, __VA_ARGS__)
#define os_log_error(handle, format, ...) \
    os_log_with_type(handle, OS_LOG_TYPE_ERROR, format, __VA_ARGS__)
// NOLINTEND(cppcoreguidelines-macro-usage)

// The plain log: always written, whatever the handles' types.
template <class... Args>
void NSLog(std::string_view format, const Args&... args) {
    platform::log::emitNSLog(format, {platform::log::FormatArg(args)...});
}
