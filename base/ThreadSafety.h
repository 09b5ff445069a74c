#pragma once
// What each mutex protects, written so that clang checks it. A member marked
// ZAVO_GUARDED_BY(mutex_) may only be touched with mutex_ held; a function
// marked ZAVO_REQUIRES(mutex_) may only be called with it held. Clang builds
// turn a breach into an error (-Wthread-safety); GCC sees empty macros.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#if defined(__clang__)
#define ZAVO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZAVO_THREAD_ANNOTATION(x)
#endif

#define ZAVO_CAPABILITY(name) ZAVO_THREAD_ANNOTATION(capability(name))
#define ZAVO_SCOPED_CAPABILITY ZAVO_THREAD_ANNOTATION(scoped_lockable)
#define ZAVO_GUARDED_BY(x) ZAVO_THREAD_ANNOTATION(guarded_by(x))
#define ZAVO_PT_GUARDED_BY(x) ZAVO_THREAD_ANNOTATION(pt_guarded_by(x))
#define ZAVO_REQUIRES(...) ZAVO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZAVO_EXCLUDES(...) ZAVO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZAVO_ACQUIRE(...) ZAVO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZAVO_RELEASE(...) ZAVO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZAVO_TRY_ACQUIRE(...) ZAVO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZAVO_RETURN_CAPABILITY(x) ZAVO_THREAD_ANNOTATION(lock_returned(x))
#define ZAVO_ASSERT_CAPABILITY(x) ZAVO_THREAD_ANNOTATION(assert_capability(x))
#define ZAVO_NO_THREAD_SAFETY_ANALYSIS ZAVO_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zavo {

/// std::mutex that the analysis knows about. The waits take a plain
/// std::condition_variable rather than needing condition_variable_any, which
/// would add a lock of its own to every notify on the frame paths.
class ZAVO_CAPABILITY("mutex") Mutex {
public:
    void lock() ZAVO_ACQUIRE() { mutex_.lock(); }
    void unlock() ZAVO_RELEASE() { mutex_.unlock(); }
    bool try_lock() ZAVO_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

    /// Releases the mutex while waiting on cv and holds it again on return,
    /// woken or not: callers loop on their own condition, which reads state
    /// that the analysis can then check.
    void wait(std::condition_variable& cv) ZAVO_REQUIRES(this)
    {
        std::unique_lock<std::mutex> lock(mutex_, std::adopt_lock);
        cv.wait(lock);
        lock.release();
    }
    template <typename Clock, typename Duration>
    std::cv_status waitUntil(std::condition_variable& cv, const std::chrono::time_point<Clock, Duration>& deadline)
        ZAVO_REQUIRES(this)
    {
        std::unique_lock<std::mutex> lock(mutex_, std::adopt_lock);
        const std::cv_status status = cv.wait_until(lock, deadline);
        lock.release();
        return status;
    }
    template <typename Rep, typename Period>
    std::cv_status waitFor(std::condition_variable& cv, const std::chrono::duration<Rep, Period>& timeout)
        ZAVO_REQUIRES(this)
    {
        std::unique_lock<std::mutex> lock(mutex_, std::adopt_lock);
        const std::cv_status status = cv.wait_for(lock, timeout);
        lock.release();
        return status;
    }

private:
    std::mutex mutex_;
};

/// Holds a Mutex for its scope; unlock() and lock() let a caller step out of
/// the lock for a call that must not run under it.
class ZAVO_SCOPED_CAPABILITY MutexLocker {
public:
    explicit MutexLocker(Mutex& mutex) ZAVO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLocker() ZAVO_RELEASE()
    {
        if (locked_)
            mutex_.unlock();
    }
    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

    void unlock() ZAVO_RELEASE()
    {
        mutex_.unlock();
        locked_ = false;
    }
    void lock() ZAVO_ACQUIRE()
    {
        mutex_.lock();
        locked_ = true;
    }

private:
    Mutex& mutex_;
    bool locked_ = true;
};

/// One value and the mutex that guards it, for state that is only ever read
/// or replaced whole.
template <typename T>
class Guarded {
public:
    Guarded() = default;
    explicit Guarded(T value) : value_(std::move(value)) {}

    T get() const
    {
        MutexLocker lock(mutex_);
        return value_;
    }
    void set(T value)
    {
        MutexLocker lock(mutex_);
        value_ = std::move(value);
    }
    /// Runs f(value) under the lock and returns what f returns.
    template <typename F>
    decltype(auto) with(F&& f)
    {
        MutexLocker lock(mutex_);
        return std::forward<F>(f)(value_);
    }
    template <typename F>
    decltype(auto) with(F&& f) const
    {
        MutexLocker lock(mutex_);
        return std::forward<F>(f)(std::as_const(value_));
    }

private:
    mutable Mutex mutex_;
    T value_ ZAVO_GUARDED_BY(mutex_);
};

} // namespace zavo
