#pragma once
// A first-in first-out list on a ring of slots that only ever grows.
//
// The work queues post a block for every camera frame. A std::deque frees and
// allocates a block of storage every few dozen posts as its front and back
// move on; this ring keeps its slots once it has them, so a queue in steady
// state posts and runs blocks without touching the heap.
#include <cstddef>
#include <utility>
#include <vector>

namespace zavo::platform {

/// Not thread-safe: the owner guards it.
template <typename T>
class RingQueue {
public:
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }
    size_t capacity() const { return slots_.size(); }

    void push(T value)
    {
        if (count_ == slots_.size())
            grow();
        slots_[(head_ + count_) & mask()] = std::move(value);
        ++count_;
    }

    /// Takes the oldest element out. The slot is left empty, so whatever the
    /// element holds is released by the caller, not when the slot is reused.
    /// The ring must not be empty.
    T pop()
    {
        T value = std::move(slots_[head_]);
        slots_[head_] = T();
        head_ = (head_ + 1) & mask();
        --count_;
        return value;
    }

private:
    size_t mask() const { return slots_.size() - 1; }

    // Capacities are powers of two, so wrapping is a mask. Growing unrolls the
    // ring: the oldest element lands in slot 0.
    void grow()
    {
        std::vector<T> bigger(slots_.empty() ? kInitialCapacity : slots_.size() * 2);
        for (size_t i = 0; i < count_; ++i)
            bigger[i] = std::move(slots_[(head_ + i) & mask()]);
        slots_.swap(bigger);
        head_ = 0;
    }

    static constexpr size_t kInitialCapacity = 16;
    std::vector<T> slots_;
    size_t head_ = 0;
    size_t count_ = 0;
};

}  // namespace zavo::platform
