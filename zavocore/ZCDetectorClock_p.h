#pragma once
// The time the detector's step limits and frame watchdog run on. Steady
// time, unless a test holds it: then it moves only when the test says so,
// and an outcome that hangs on a time limit no longer hangs on how fast the
// machine happens to be.
#include "base/ZavoExport.h"
#include <chrono>

namespace zavo::core::detail {

class ZAVO_EXPORT DetectorClock {
public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;

    static time_point now();
    /// How long the detector's thread may sleep before it must look at the
    /// clock again: until the deadline in steady time, or a few milliseconds
    /// while the clock is held (only the test moves it, and it cannot wake
    /// the detector).
    static duration sleepUntil(time_point deadline);
};

/// Holds the detector's clock while it lives: time stands still from the
/// moment it is made, for every detector in the process, until advance().
/// One at a time; for tests.
class ZAVO_EXPORT HeldDetectorClock {
public:
    HeldDetectorClock();
    ~HeldDetectorClock();
    HeldDetectorClock(const HeldDetectorClock&) = delete;
    HeldDetectorClock& operator=(const HeldDetectorClock&) = delete;

    void advance(std::chrono::milliseconds by);
};

}  // namespace zavo::core::detail
