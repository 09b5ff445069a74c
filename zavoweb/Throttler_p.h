#pragma once
// Collapses bursts of calls into few runs of an action, for messages that
// would otherwise flash on every detector report.
#include "base/ZavoExport.h"
#include "base/DispatchQueue.h"

#include <functional>
#include <memory>

namespace zavo::web {

/// Timing: the first call after a quiet spell runs the action at once (on the
/// next turn of the queue); calls that follow within `delay` of the last run
/// collapse into one trailing run, `delay` after that last run, with the
/// action of the newest call. So a message appears promptly, never more than
/// once per delay, and the newest one is not lost.
///
/// Threads: the throttler's state (last fire, pending work item) is touched
/// on the queue given to throttle() only. The returned closure may be called
/// from any thread; called elsewhere it hops to that queue first. Use one
/// queue per throttler. A pending action still runs when the throttler is
/// released before it.
class ZAVO_EXPORT Throttler {
public:
    /// lastFire: when the action last ran, in seconds of now() (0: long ago).
    /// currentWorkItem: a pending run that the next call cancels, if any.
    explicit Throttler(double lastFire = 0.0, std::shared_ptr<platform::DispatchWorkItem> currentWorkItem = nullptr);

    /// A closure to call at once; see the class comment for when `action`
    /// runs. `queue` must outlive the pending run (the main queue always does).
    std::function<void()> throttle(double delay, platform::DispatchQueue& queue, std::function<void()> action);

    /// The clock of lastFire: monotonic seconds.
    static double now();

private:
    struct State {
        double lastFire = 0.0;
        std::shared_ptr<platform::DispatchWorkItem> currentWorkItem;
    };
    static void schedule(const std::shared_ptr<State>& state, double delay, platform::DispatchQueue& queue,
                         const std::function<void()>& action);

    std::shared_ptr<State> state_;
};

}  // namespace zavo::web
