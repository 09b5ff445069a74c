#include "zavocore/ZCDetectorClock_p.h"

#include <atomic>
#include <cassert>

namespace zavo::core::detail {

namespace {

// The held time in steady-clock ticks; the flag says whether it is held.
std::atomic<bool> held{false};
std::atomic<DetectorClock::duration::rep> heldTicks{0};

}  // namespace

DetectorClock::time_point DetectorClock::now()
{
    if (held.load(std::memory_order_acquire))
        return time_point(duration(heldTicks.load(std::memory_order_acquire)));
    return std::chrono::steady_clock::now();
}

DetectorClock::duration DetectorClock::sleepUntil(time_point deadline)
{
    if (held.load(std::memory_order_acquire))
        return std::chrono::milliseconds(5);
    return deadline - std::chrono::steady_clock::now();
}

HeldDetectorClock::HeldDetectorClock()
{
    heldTicks.store(std::chrono::steady_clock::now().time_since_epoch().count(), std::memory_order_release);
    [[maybe_unused]] const bool wasHeld = held.exchange(true, std::memory_order_acq_rel);
    assert(!wasHeld);
}

HeldDetectorClock::~HeldDetectorClock() { held.store(false, std::memory_order_release); }

void HeldDetectorClock::advance(std::chrono::milliseconds by)
{
    heldTicks.fetch_add(std::chrono::duration_cast<DetectorClock::duration>(by).count(), std::memory_order_acq_rel);
}

}  // namespace zavo::core::detail
