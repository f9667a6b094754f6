#include "platform/foundation/NSDate.h"

#include <mutex>

namespace {
std::mutex gClockMutex;
std::function<QDateTime()> gClock;  // guarded by gClockMutex
}  // namespace

QDateTime NSDate::date() {
    {
        std::lock_guard lock(gClockMutex);
        if (gClock) {
            return gClock();
        }
    }
    return QDateTime::currentDateTime();
}

void NSDate::setClockForTesting(std::function<QDateTime()> clock) {
    std::lock_guard lock(gClockMutex);
    gClock = std::move(clock);
}
