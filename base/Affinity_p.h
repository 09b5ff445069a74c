#pragma once
// Where a method must run, checked. A comment saying "session queue" or
// "main thread only" is a promise nothing enforces; ZAVO_ASSERT_ON turns it
// into a check at the method's entry. Test and debug builds compile the check
// (ZAVO_CHECK_AFFINITY, on with the test suites); release builds compile it
// to nothing, so it costs the frame path nothing there.
//
// A broken promise ends the process with the method, the queue it belongs to
// and the thread it ran on: a wrong-thread call is a data race waiting for the
// right timing, and a test that reaches one must fail where it happened.
#include "base/ConsumerThread_p.h"
#include "base/DispatchQueue.h"
#include "base/ZavoExport.h"

#include <QString>

namespace zavo::platform::affinity {

[[noreturn]] ZAVO_EXPORT void broken(const char* method, const QString& expected);

inline bool runsOn(const DispatchQueue& queue) { return queue.isCurrent(); }
// A queue not made yet cannot be checked against; its owner's set-up runs
// before anything that needs it.
inline bool runsOn(const DispatchQueuePtr& queue) { return !queue || queue->isCurrent(); }
inline bool runsOn(const ConsumerThread& thread) { return thread.isCurrent(); }

inline QString nameOf(const DispatchQueue& queue)
{
    return &queue == &DispatchQueue::main() ? QStringLiteral("the main queue") : queue.label();
}
inline QString nameOf(const DispatchQueuePtr& queue) { return queue ? nameOf(*queue) : QString(); }
inline QString nameOf(const ConsumerThread&) { return QStringLiteral("its consumer thread"); }

}  // namespace zavo::platform::affinity

#if defined(ZAVO_CHECK_AFFINITY)
#define ZAVO_ASSERT_ON(queue)                                                      \
    do {                                                                           \
        if (!::zavo::platform::affinity::runsOn(queue))                            \
            ::zavo::platform::affinity::broken(Q_FUNC_INFO,                        \
                                               ::zavo::platform::affinity::nameOf(queue)); \
    } while (false)
#else
#define ZAVO_ASSERT_ON(queue) \
    do {                      \
    } while (false)
#endif

#define ZAVO_ASSERT_ON_MAIN() ZAVO_ASSERT_ON(::zavo::platform::DispatchQueue::main())
