#include "logging/LMLog.h"

std::atomic<uint32_t> __LMLogLevel{1};

void LMLogSetLogLevel(uint32_t level) {
    if (level <= 3) {
        __LMLogLevel.store(level, std::memory_order_relaxed);
    }
}
