#pragma once

#include "foundation/MainQueue.h"

// Puts the main queue on a test clock for the guard's lifetime.
class ClockGuard {
public:
    ClockGuard() { MainQueue::setTestClock(&clock); }
    ~ClockGuard() { MainQueue::setTestClock(nullptr); }
    ClockGuard(const ClockGuard &) = delete;
    ClockGuard &operator=(const ClockGuard &) = delete;

    void advance(int ms) { clock.advance(ms); }
    TestClock clock;
};
