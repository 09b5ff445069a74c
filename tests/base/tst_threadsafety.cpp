// The annotated mutex, its scoped locker and Guarded<T>: the analysis only
// checks what they claim, so what they do is checked here.
#include "base/ThreadSafety.h"

#include <QtTest>

#include <atomic>
#include <thread>

using namespace zavo;

namespace {
// try_lock from the calling thread would be undefined on a std::mutex.
bool heldElsewhere(Mutex& mutex)
{
    bool free = false;
    std::thread([&] {
        free = mutex.try_lock();
        if (free)
            mutex.unlock();
    }).join();
    return !free;
}
}  // namespace

class TstThreadSafety : public QObject {
    Q_OBJECT

private slots:
    void lockerHoldsUntilUnlockedOrOutOfScope()
    {
        Mutex mutex;
        {
            MutexLocker lock(mutex);
            QVERIFY(heldElsewhere(mutex));
            lock.unlock();
            QVERIFY(!heldElsewhere(mutex));
            lock.lock();
            QVERIFY(heldElsewhere(mutex));
        }
        QVERIFY(!heldElsewhere(mutex));
        {
            MutexLocker lock(mutex);
            lock.unlock();
        }  // no second unlock at the end of the scope
        QVERIFY(!heldElsewhere(mutex));
    }

    void waitReleasesTheMutexAndHoldsItAgain()
    {
        Mutex mutex;
        std::condition_variable changed;
        bool ready = false;
        MutexLocker lock(mutex);
        std::thread setter([&] {
            MutexLocker inner(mutex);  // blocks for good unless the wait lets go
            ready = true;
            changed.notify_one();
        });
        while (!ready)
            mutex.waitFor(changed, std::chrono::seconds(5));
        QVERIFY(heldElsewhere(mutex));
        lock.unlock();
        setter.join();
    }

    void withRunsUnderTheLockAndReturnsItsResult()
    {
        Guarded<int> value(1);
        std::atomic<bool> setterDone{false};
        std::thread setter;
        const int seen = value.with([&](int& v) {
            setter = std::thread([&] {
                value.set(5);
                setterDone = true;
            });
            // The pause is what is tested: it gives the setter time to get
            // past the lock if the lock did not hold it.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const bool blocked = !setterDone;
            v = 2;
            return blocked ? v * 10 : -1;
        });
        setter.join();
        QCOMPARE(seen, 20);
        QCOMPARE(value.get(), 5);  // the setter's write came after f's
    }
};

QTEST_GUILESS_MAIN(TstThreadSafety)
#include "tst_threadsafety.moc"
