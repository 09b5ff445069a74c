#pragma once
// Checks that something does NOT happen need an end point that is not wall
// time: the queues the event would travel through are flushed instead. A
// block posted behind everything already queued runs after it (every queue is
// FIFO), so once the barrier has run, whatever was on its way has landed.
#include "base/DispatchQueue.h"

#include <QCoreApplication>
#include <QtTest/QTest>

#include <atomic>
#include <initializer_list>
#include <memory>

namespace zavo::testing {

/// Runs every main-queue block posted so far, and the Qt events they posted
/// (a widget's update request among them). Call on the GUI thread.
inline bool flushMainQueue()
{
    auto ran = std::make_shared<std::atomic<bool>>(false);
    platform::DispatchQueue::main().async([ran] { ran->store(true); });
    if (!QTest::qWaitFor([&] { return ran->load(); }, 30000))
        return false;
    QCoreApplication::sendPostedEvents();
    return true;
}

/// Flushes the queues in the order an event travels them, `rounds` times, so
/// that a hop from the last one back to the first has landed too.
inline bool flushQueues(std::initializer_list<platform::DispatchQueue*> path, int rounds = 2)
{
    for (int round = 0; round < rounds; ++round) {
        for (platform::DispatchQueue* queue : path) {
            if (queue == &platform::DispatchQueue::main()) {
                if (!flushMainQueue())
                    return false;
            } else {
                queue->sync([] {});
            }
        }
    }
    return true;
}

/// Waits until every asyncAfter block on the main queue has fired: a timer a
/// component left behind (a banner's hide) runs before this returns.
inline bool settleMainTimers(int timeoutMs = 30000)
{
    return QTest::qWaitFor([] { return platform::DispatchQueue::main().pendingDelayedCount() == 0; }, timeoutMs)
        && flushMainQueue();
}

} // namespace zavo::testing
