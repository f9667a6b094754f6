#include "platform/log/os_log.h"

#include <sys/stat.h>
#include <pthread.h>
#include <unistd.h>

#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <atomic>
#include <mutex>

#include "platform/dispatch/handover.h"

#ifdef LUMARO_HAVE_JOURNAL
#include <systemd/sd-journal.h>
#endif

namespace platform::log {
namespace {

uint32_t typesFromEnvironment() {
    const char* env = std::getenv("LUMARO_LOG_TYPES");
    if (env == nullptr) {
        return kDefaultTypeBit | kErrorTypeBit;
    }
    const std::string value(env);
    uint32_t mask = 0;
    if (value.find("default") != std::string::npos) {
        mask |= kDefaultTypeBit;
    }
    if (value.find("error") != std::string::npos) {
        mask |= kErrorTypeBit;
    }
    return mask;
}

std::mutex gSinkMutex;
LogCapture* gCapture = nullptr;  // guarded by gSinkMutex

// The journal is used when standard error is the stream systemd handed us (JOURNAL_STREAM names
// its device and inode).
bool stderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) {
        return false;
    }
    struct stat st {};
    if (fstat(STDERR_FILENO, &st) != 0) {
        return false;
    }
    unsigned long long dev = 0;
    unsigned long long ino = 0;
    if (std::sscanf(stream, "%llu:%llu", &dev, &ino) != 2) {
        return false;
    }
    return dev == st.st_dev && ino == st.st_ino;
}

std::string processName() {
    char buf[256] = {};
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) {
        return "unknown";
    }
    const char* slash = std::strrchr(buf, '/');
    return slash != nullptr ? slash + 1 : buf;
}

// The lines of this thread's open batches, and how deep they nest.
struct Batch {
    int depth = 0;
    std::string lines;
};
thread_local Batch tBatch;
constexpr size_t kBatchLimit = 64 * 1024;

void writeAll(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // nowhere to write: the log is lost, the program goes on
        }
        done += static_cast<size_t>(n);
    }
}

// "YYYY-MM-DD HH:MM:SS.mmm" in local time. localtime_r keeps the zone it loaded; Qt's local-time
// conversion re-checks the zone file on every call, which costs more than the rest of the line.
// The seconds part is made once per second and thread.
void appendTimestamp(std::string& line) {
    thread_local time_t cachedSecond = -1;
    thread_local char cached[32] = {};
    thread_local size_t cachedLength = 0;
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    if (ts.tv_sec != cachedSecond) {
        tm local{};
        localtime_r(&ts.tv_sec, &local);
        cachedLength = strftime(cached, sizeof cached, "%Y-%m-%d %H:%M:%S", &local);
        cachedSecond = ts.tv_sec;
    }
    char millis[16];
    std::snprintf(millis, sizeof millis, ".%03ld", ts.tv_nsec / 1000000);
    line.append(cached, cachedLength).append(millis);
}

// The process id of every line, asked once (again in a forked child) rather than once per line.
std::atomic<pid_t> gPid{0};

pid_t processId() {
    pid_t pid = gPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        static std::once_flag atFork;
        std::call_once(atFork, [] { pthread_atfork(nullptr, nullptr, [] { gPid.store(0); }); });
        pid = getpid();
        gPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

void writeToBackend(const LogRecord& record) {
    static const bool journal = stderrIsJournal();
    static const std::string name = processName();
#ifdef LUMARO_HAVE_JOURNAL
    if (journal) {
        const int priority = record.type >= OS_LOG_TYPE_ERROR ? 3 : 5;
        sd_journal_send("MESSAGE=%s", record.text.c_str(), "PRIORITY=%d", priority,
                        "LUMARO_SUBSYSTEM=%s", record.subsystem.c_str(), nullptr);
        return;
    }
#else
    (void)journal;
#endif
    const char* type = record.isNSLog ? "NSLog"
                       : record.type >= OS_LOG_TYPE_ERROR ? "Error"
                                                          : "Default";
    std::string single;
    std::string& line = tBatch.depth > 0 ? tBatch.lines : single;
    line.reserve(line.size() + record.text.size() + 64);
    appendTimestamp(line);
    line.append(" ").append(name).append("[");
    line.append(std::to_string(processId())).append("] <").append(type).append("> ");
    line.append(record.text).append("\n");
    if (tBatch.depth == 0) {
        writeAll(single);
    } else if (tBatch.lines.size() >= kBatchLimit) {
        writeAll(tBatch.lines);
        tBatch.lines.clear();
    }
}

}  // namespace

void deliver(LogRecord&& record) {
    {
        std::lock_guard lock(gSinkMutex);
        if (gCapture != nullptr) {
            gCapture->add(std::move(record));
            return;
        }
    }
    writeToBackend(record);
}

void setEnabledTypes(uint32_t mask) {
    _os_log_default.enabledTypes.store(mask, std::memory_order_relaxed);
}

uint32_t enabledTypes() {
    return _os_log_default.enabledTypes.load(std::memory_order_relaxed);
}

void logMessage(os_log_t log, os_log_type_t type, std::string_view format,
          std::initializer_list<FormatArg> args) {
    if (!os_log_type_enabled(log, type)) {
        return;
    }
    deliver(LogRecord{log->name, type, false, formatMessage(format, args)});
}

void emitNSLog(std::string_view format, std::initializer_list<FormatArg> args) {
    deliver(LogRecord{"NSLog", OS_LOG_TYPE_DEFAULT, true, formatMessage(format, args)});
}

LogBatch::LogBatch() {
    ++tBatch.depth;
}

LogBatch::~LogBatch() {
    if (--tBatch.depth == 0 && !tBatch.lines.empty()) {
        writeAll(tBatch.lines);
        tBatch.lines.clear();
    }
}

struct LogCapture::State {
    mutable std::mutex mutex;
    std::vector<LogRecord> records;
};

// The capture's lock is a marked one: its records are written on connection threads that Qt
// started out of the thread sanitizer's sight, and read on the main thread, only ever under this
// lock, yet the sanitizer loses the lock's pairs there.
using CaptureLock = platform::dispatch::MarkedLock;

LogCapture::LogCapture() : state_(new State) {
    std::lock_guard lock(gSinkMutex);
    gCapture = this;
}

LogCapture::~LogCapture() {
    {
        std::lock_guard lock(gSinkMutex);
        if (gCapture == this) {
            gCapture = nullptr;
        }
    }
    delete state_;
}

void LogCapture::add(LogRecord&& record) {
    CaptureLock lock(state_->mutex);
    state_->records.push_back(std::move(record));
}

std::vector<LogRecord> LogCapture::records() const {
    CaptureLock lock(state_->mutex);
    return state_->records;
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> out;
    for (const LogRecord& r : records()) {
        out.push_back(r.text);
    }
    return out;
}

size_t LogCapture::count(std::string_view text) const {
    size_t n = 0;
    for (const LogRecord& r : records()) {
        n += r.text == text ? 1 : 0;
    }
    return n;
}

void LogCapture::clear() {
    CaptureLock lock(state_->mutex);
    state_->records.clear();
}

}  // namespace platform::log

os_log_s _os_log_default{"default", platform::log::typesFromEnvironment()};
os_log_s _os_log_disabled{"disabled", 0};
