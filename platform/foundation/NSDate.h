// The current date, from a clock that tests can replace.
#pragma once

#include <QDateTime>
#include <functional>

class NSDate {
public:
    // Now, from the installed clock (the system clock unless a test set another).
    static QDateTime date();

    // Replaces the clock for the whole process; an empty function restores the system clock.
    static void setClockForTesting(std::function<QDateTime()> clock);
};
