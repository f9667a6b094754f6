// What a log call costs when it is dropped: by the process's log level (a tagged message above
// the level) or by the log's enabled types (a tagged or untagged message of a disabled type).
// The arguments would be expensive to format; a dropped call must never evaluate them.
#include <benchmark/benchmark.h>

#include <QString>

#include "logging/LMLog.h"
#include "platform/log/os_log.h"

namespace {

const char* const kMethod = "-[LMDaemonProxy init]";

QString expensive(int i) {
    return QString::number(i).repeated(64);
}

void BM_TaggedDebugExcludedByLevel(benchmark::State& state) {
    LMLogSetLogLevel(1);  // info and error only
    int i = 0;
    for (auto _ : state) {
        LM_LOG_DEBUG(kMethod, "value %@ count %d", expensive(i), i);
        benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_TaggedDebugExcludedByLevel);

void BM_TaggedInfoExcludedByType(benchmark::State& state) {
    LMLogSetLogLevel(1);
    const uint32_t saved = platform::log::enabledTypes();
    platform::log::setEnabledTypes(platform::log::kErrorTypeBit);  // default type off
    int i = 0;
    for (auto _ : state) {
        LM_LOG_INFO(kMethod, "value %@ count %d", expensive(i), i);
        benchmark::DoNotOptimize(++i);
    }
    platform::log::setEnabledTypes(saved);
}
BENCHMARK(BM_TaggedInfoExcludedByType);

void BM_UntaggedExcludedByType(benchmark::State& state) {
    const uint32_t saved = platform::log::enabledTypes();
    platform::log::setEnabledTypes(platform::log::kErrorTypeBit);
    int i = 0;
    for (auto _ : state) {
        os_log(OS_LOG_DEFAULT, "deleting old file %@", expensive(i));
        benchmark::DoNotOptimize(++i);
    }
    platform::log::setEnabledTypes(saved);
}
BENCHMARK(BM_UntaggedExcludedByType);

void BM_DisabledHandle(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        os_log_error(OS_LOG_DISABLED, "error %@", expensive(i));
        benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_DisabledHandle);

}  // namespace

BENCHMARK_MAIN();
