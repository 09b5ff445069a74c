#pragma once
// The two ways frames pass from the thread that makes them to a thread that
// uses them.
//
// SpscRing: every frame, in order, from one producer to one consumer, with a
// fixed number of places; the capture thread never waits or takes a lock, and
// a full ring is the consumer falling behind (the producer drops and counts).
//
// NewestSlot: only the newest frame, for a consumer that works at its own
// pace (painting) and would only fall further behind on older ones.
#include "base/ThreadSafety.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>

namespace zavo::platform {

/// A bounded first-in first-out ring between exactly one producer thread and
/// one consumer thread, without locks. Slots are reused, so a steady stream
/// moves values without touching the heap.
template <typename T, uint32_t Capacity>
class SpscRing {
    static_assert(Capacity > 0 && (Capacity & (Capacity - 1)) == 0, "a power of two, so indices wrap cleanly");

public:
    /// Producer only. False when the ring is full; value is then left as it was.
    bool tryPush(T&& value)
    {
        const uint32_t w = written_.load(std::memory_order_relaxed);
        if (w - read_.load(std::memory_order_acquire) >= Capacity)
            return false;
        slots_[w % Capacity] = std::move(value);
        written_.store(w + 1, std::memory_order_release);
        return true;
    }

    /// Consumer only. The oldest value, or nothing when the ring is empty.
    /// Its slot is emptied before it is given back to the producer, so what
    /// the value holds is released by the consumer, not on the next push.
    std::optional<T> tryPop()
    {
        const uint32_t r = read_.load(std::memory_order_relaxed);
        if (r == written_.load(std::memory_order_acquire))
            return std::nullopt;
        std::optional<T> value(std::exchange(slots_[r % Capacity], T()));
        read_.store(r + 1, std::memory_order_release);
        return value;
    }

    /// Either side: how many values are waiting (a snapshot).
    uint32_t size() const
    {
        return written_.load(std::memory_order_acquire) - read_.load(std::memory_order_acquire);
    }

private:
    std::array<T, Capacity> slots_{};
    std::atomic<uint32_t> written_{0};  // advanced by the producer only
    std::atomic<uint32_t> read_{0};     // advanced by the consumer only
};

/// The newest of a stream of values, under a lock of its own. Any thread may
/// put and read.
template <typename T>
class NewestSlot {
public:
    /// Stores value and returns the one it replaces, for the caller to
    /// release outside the lock (a frame going back to its pool may run
    /// other code).
    [[nodiscard]] T put(T value)
    {
        MutexLocker lock(mutex_);
        std::swap(value_, value);
        return value;
    }
    /// A copy of the newest value; it stays in the slot.
    T newest() const
    {
        MutexLocker lock(mutex_);
        return value_;
    }

private:
    mutable Mutex mutex_;
    T value_ ZAVO_GUARDED_BY(mutex_) = T();
};

}  // namespace zavo::platform
