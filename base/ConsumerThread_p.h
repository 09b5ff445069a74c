#pragma once
// The thread of a consumer that has one of its own: the movie recorder
// (frames from the capture thread, commands from its owner) and the detector
// (frames, commands and timers).
#include "base/ZavoExport.h"

#include <QByteArray>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

namespace zavo::platform {

/// Runs rounds of its owner's work on a thread, sleeping between them until
/// it is woken or the time a round asked for has passed. The owner keeps its
/// work (rings, commands, timers) itself; a wake that comes after a round
/// began always leads to another round, so nothing is left waiting while the
/// thread sleeps. The lock here covers only the wake-up, never a round, so a
/// producer that wakes the thread for every frame never waits for one.
///
/// Thread-safe. The owner ends the thread by having a round return
/// Next::end() and then calling join().
class ZAVO_EXPORT ConsumerThread {
public:
    /// What a round asks for once it has done the work there was.
    struct Next {
        bool ends = false;
        std::optional<std::chrono::nanoseconds> sleepAtMost;  // none: until woken

        static Next end() { return {true, std::nullopt}; }
        static Next whenWoken() { return {}; }
        static Next wokenOrAfter(std::chrono::nanoseconds timeout) { return {false, timeout}; }
    };
    using Round = std::function<Next()>;

    ConsumerThread();
    /// Joins (or detaches, from the thread itself) a thread still running:
    /// the owner must have asked it to end.
    ~ConsumerThread();
    ConsumerThread(const ConsumerThread&) = delete;
    ConsumerThread& operator=(const ConsumerThread&) = delete;

    /// Starts the thread with its first round at once; does nothing when it
    /// has been started before. The round is destroyed on the thread when it
    /// ends, so what it owns is released there.
    void start(const QByteArray& name, Round round);
    /// Any thread: there is work, run a round soon.
    void wake();
    /// True when called from one of this thread's rounds.
    bool isCurrent() const;
    /// Waits for the thread to end; from the thread itself (a round that
    /// drops the last reference to the owner), lets it end on its own.
    void join();

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace zavo::platform
