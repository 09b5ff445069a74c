#include "zavoweb/Throttler_p.h"

#include <algorithm>
#include <chrono>

namespace zavo::web {

Throttler::Throttler(double lastFire, std::shared_ptr<platform::DispatchWorkItem> currentWorkItem)
    : state_(std::make_shared<State>(State{lastFire, std::move(currentWorkItem)}))
{
}

double Throttler::now()
{
    using Seconds = std::chrono::duration<double>;
    return std::chrono::duration_cast<Seconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::function<void()> Throttler::throttle(double delay, platform::DispatchQueue& queue, std::function<void()> action)
{
    return [state = state_, delay, &queue, action = std::move(action)] {
        if (queue.isCurrent())
            schedule(state, delay, queue, action);
        else
            queue.async([state, delay, &queue, action] { schedule(state, delay, queue, action); });
    };
}

void Throttler::schedule(const std::shared_ptr<State>& state, double delay, platform::DispatchQueue& queue,
                         const std::function<void()>& action)
{
    if (state->currentWorkItem)
        state->currentWorkItem->cancel();
    // The item refers to the state weakly: the state holds the item, and a
    // strong reference back would keep both alive forever.
    std::weak_ptr<State> weakState = state;
    auto item = std::make_shared<platform::DispatchWorkItem>([weakState, action] {
        if (auto s = weakState.lock()) {
            s->lastFire = now();
            s->currentWorkItem.reset();
        }
        action();
    });
    state->currentWorkItem = item;
    const double wait = std::max(0.0, state->lastFire + delay - now());
    if (wait <= 0.0)
        queue.async(item);
    else
        queue.asyncAfter(std::chrono::duration_cast<platform::DispatchQueue::Duration>(std::chrono::duration<double>(wait)),
                         item);
}

}  // namespace zavo::web
