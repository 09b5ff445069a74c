#include "base/ConsumerThread_p.h"

#include "base/ThreadSafety.h"

#include <condition_variable>

#include <pthread.h>

namespace zavo::platform {

namespace {
thread_local const void* tlsCurrentConsumer = nullptr;
}  // namespace

struct ConsumerThread::State {
    Mutex mutex;
    std::condition_variable woken;
    uint64_t wakes ZAVO_GUARDED_BY(mutex) = 0;
    std::thread thread ZAVO_GUARDED_BY(mutex);

    static void run(const std::shared_ptr<State>& state, Round round)
    {
        for (;;) {
            uint64_t seen;
            {
                MutexLocker lock(state->mutex);
                seen = state->wakes;
            }
            const Next next = round();
            if (next.ends)
                break;
            MutexLocker lock(state->mutex);
            if (state->wakes != seen)
                continue;
            if (next.sleepAtMost)
                state->mutex.waitFor(state->woken, *next.sleepAtMost);
            else
                state->mutex.wait(state->woken);
            // Woken, timed out or spuriously: another round looks either way.
        }
        round = nullptr;  // what the round holds is released on this thread
    }
};

ConsumerThread::ConsumerThread() : state_(std::make_shared<State>()) {}

ConsumerThread::~ConsumerThread() { join(); }

void ConsumerThread::start(const QByteArray& name, Round round)
{
    MutexLocker lock(state_->mutex);
    if (state_->thread.joinable())
        return;
    state_->thread = std::thread([state = state_, name, round = std::move(round)]() mutable {
        // Thread names are at most 15 characters.
        pthread_setname_np(pthread_self(), name.left(15).constData());
        tlsCurrentConsumer = state.get();
        State::run(state, std::move(round));
    });
}

void ConsumerThread::wake()
{
    {
        MutexLocker lock(state_->mutex);
        ++state_->wakes;
    }
    state_->woken.notify_one();
}

bool ConsumerThread::isCurrent() const { return tlsCurrentConsumer == state_.get(); }

void ConsumerThread::join()
{
    std::thread thread;
    {
        MutexLocker lock(state_->mutex);
        thread = std::move(state_->thread);
    }
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}

}  // namespace zavo::platform
