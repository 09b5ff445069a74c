#pragma once
// Work queues. The main queue is the Qt GUI thread's event loop; every other
// queue is serial and runs its blocks, in the order they were submitted, on a
// thread of its own named after the queue's label.
//
// Lifetime: a queue object may be released at any time, also from one of its
// own blocks. Blocks already submitted still run (they usually hold what they
// need); the thread then ends by itself. Releasing a queue never blocks, so a
// queue whose block is waiting on the main queue can be released from the main
// thread without a deadlock.
#include "base/ZavoExport.h"
#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace zavo::platform {

enum class QualityOfService { Unspecified, Background, Utility, Default, UserInitiated, UserInteractive };

/// A block that can be cancelled before it runs. Thread-safe.
class ZAVO_EXPORT DispatchWorkItem {
public:
    explicit DispatchWorkItem(std::function<void()> block);
    /// Runs the block on the calling thread unless the item was cancelled.
    void perform();
    /// A cancelled item never runs its block; one already running finishes.
    void cancel();
    bool isCancelled() const;

private:
    std::function<void()> block_;
    std::atomic<bool> cancelled_{false};
};

class ZAVO_EXPORT DispatchQueue {
public:
    using Block = std::function<void()>;
    using Duration = std::chrono::nanoseconds;

    /// The GUI thread's queue. Needs a QCoreApplication (or subclass).
    static DispatchQueue& main();
    /// A new serial queue. Background work runs at a lower thread priority;
    /// relativePriority lowers it further (it never raises it above normal).
    static std::shared_ptr<DispatchQueue> create(const QString& label,
                                                 QualityOfService qos = QualityOfService::Unspecified,
                                                 int relativePriority = 0);
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    QString label() const;
    QualityOfService qualityOfService() const;
    /// True when called from a block running on this queue.
    bool isCurrent() const;

    void async(Block block);
    void async(const std::shared_ptr<DispatchWorkItem>& item);
    /// Runs the block on this queue and returns when it has run. Called from
    /// this queue itself the block runs at once instead of deadlocking.
    void sync(const Block& block);
    /// Runs the block on this queue once the delay has passed.
    void asyncAfter(Duration delay, Block block);
    void asyncAfter(Duration delay, const std::shared_ptr<DispatchWorkItem>& item);
    void asyncAfter(double seconds, Block block);

    /// Blocks handed to asyncAfter whose time has not come yet. Lets a test
    /// wait for the timers a component left behind to fire, instead of
    /// sleeping past them.
    int pendingDelayedCount() const;

    /// Number of serial-queue threads alive in the process (for leak checks).
    static int liveThreadCount();

    struct State;

private:
    DispatchQueue() = default;
    std::shared_ptr<State> state_;  // null for the main queue
};

using DispatchQueuePtr = std::shared_ptr<DispatchQueue>;

}  // namespace zavo::platform
